// SPDX-License-Identifier: Apache-2.0
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "lib/fault_point.h"
#include "lib/startup.h"
#include "tools/mirador-fileops/fileops.h"

int main(int argc, char** argv) {
    mirador::hold_std_streams();
    mirador::fast_clock_from_environment();
    std::signal(SIGPIPE, [](int) {});
    const int status = mirador::fileops_main({argv + 1, argv + argc}, stdout, stderr);
    // The agent, which has answered, ends by itself when its input does. An orderly exit would wait for that, a second
    // at least.
    std::fflush(nullptr);
    std::_Exit(status);
}
