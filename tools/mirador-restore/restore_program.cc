// SPDX-License-Identifier: Apache-2.0
#include "tools/mirador-restore/restore.h"

int main(int argc, char** argv) {
    return mirador::restore_main({argv + 1, argv + argc}, stdout, stderr);
}
