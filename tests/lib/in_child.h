// SPDX-License-Identifier: Apache-2.0
// Running a piece of a test in a process of its own, where it may close, redirect and kill what it likes.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

namespace mirador {

// The exit status of `body()`, called in a forked child; 128 and the signal's number when a signal ended it.
template <typename body_t>
int in_child(body_t body) {
    const pid_t pid = fork();
    if (pid == 0)
        _exit(body());
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR)
        continue;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace mirador
