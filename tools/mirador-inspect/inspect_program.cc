// SPDX-License-Identifier: Apache-2.0
#include "tools/mirador-inspect/inspect.h"

int main(int argc, char** argv) {
    return mirador::inspect_main({argv + 1, argv + argc}, stdout, stderr);
}
