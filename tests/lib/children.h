// SPDX-License-Identifier: Apache-2.0
// What a test that starts processes must not leave behind.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <iterator>

#include "lib/spawn.h"

namespace mirador {

// Whether this process has a child, running or a zombie, that is not gone a moment after others were waited for: that
// reaps what had been killed.
inline bool leaves_children() {
    siginfo_t info{};
    for (int tries = 0; tries < 20; tries++) {
        if (waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != 0 && errno == ECHILD)
            return false;
        (void)spawn_tool({"/bin/true"});
    }
    return true;
}

inline std::ptrdiff_t open_descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

// Makes SIGPIPE as harmless as it is in the daemon, and the same way.
inline void survive_broken_pipes() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGPIPE, &action, nullptr);
}

}  // namespace mirador
