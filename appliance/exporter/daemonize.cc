// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/daemonize.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>

#include "lib/cor_assert.h"

namespace mirador {
namespace {

// The outcome as the parent sees it: a byte means that the child serves, the end of the pipe that it is ending.
int wait_for_outcome(const unique_fd& ready, pid_t child) {
    char byte = 0;
    ssize_t got = 0;
    do
        got = read(ready.get(), &byte, 1);
    while (got < 0 && errno == EINTR);
    if (got == 1)
        return 0;
    int status = 0;
    while (waitpid(child, &status, 0) < 0)
        if (errno != EINTR)
            return 1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

void leave_terminal(bool has_log_file) {
    const unique_fd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    cor_assert(null);
    cor_assert(dup2(null.get(), STDIN_FILENO) == STDIN_FILENO);
    if (has_log_file)
        return;
    cor_assert(dup2(null.get(), STDOUT_FILENO) == STDOUT_FILENO);
    cor_assert(dup2(null.get(), STDERR_FILENO) == STDERR_FILENO);
}

}  // namespace

std::optional<int> background_t::enter() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        std::perror("pipe");
        return 1;
    }
    unique_fd read_end(ends[0]);
    ready_.reset(ends[1]);
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) {
        std::perror("fork");
        return 1;
    }
    if (child == 0) {
        setsid();
        return std::nullopt;
    }
    ready_.reset();
    return wait_for_outcome(read_end, child);
}

void background_t::serving(bool has_log_file) {
    if (!ready_)
        return;
    std::fflush(nullptr);
    cor_assert(chdir("/") == 0);
    leave_terminal(has_log_file);
    const char byte = 1;
    if (write(ready_.get(), &byte, 1) != 1)
        std::perror("write");
    ready_.reset();
}

}  // namespace mirador
