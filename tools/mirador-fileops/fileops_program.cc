// SPDX-License-Identifier: Apache-2.0
#include <csignal>

#include "lib/startup.h"
#include "tools/mirador-fileops/fileops.h"

int main(int argc, char** argv) {
    mirador::hold_std_streams();
    std::signal(SIGPIPE, [](int) {});
    return mirador::fileops_main({argv + 1, argv + argc}, stdout, stderr);
}
