// SPDX-License-Identifier: Apache-2.0
#include "tools/fuse-dmsetup/server.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>

#include "lib/file_io.h"
#include "tools/fuse-dmsetup/server_loop.h"

namespace mirador {
namespace {

constexpr int report_fd = 3;

void reset_signals() {
    for (const int number : {SIGHUP, SIGINT, SIGPIPE, SIGQUIT})
        std::signal(number, SIG_IGN);
    std::signal(SIGCHLD, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

// A table keeps a descriptor for each device that it maps onto.
void raise_descriptor_limit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// Leaves everything that the starter gave: its session, descriptors, directory, signals, name.
void become_daemon(int report) {
    setsid();
    if (fork() != 0)
        _exit(0);
    const int null = open("/dev/null", O_RDWR);
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        dup2(null, fd);
    dup2(report, report_fd);
    close_range(report_fd + 1, ~0U, 0);
    reset_signals();
    raise_descriptor_limit();
    umask(S_IRWXG | S_IRWXO);
    if (chdir("/") != 0)
        _exit(EXIT_FAILURE);
    prctl(PR_SET_NAME, "fuse-dmsetup");
}

// What the server says before it closes its end: nothing when all is well.
std::string read_report(int fd) {
    std::string report;
    char part[1024];
    ssize_t size;
    while ((size = read(fd, part, sizeof part)) > 0 || (size < 0 && errno == EINTR))
        if (size > 0)
            report.append(part, static_cast<std::size_t>(size));
    return report;
}

}  // namespace

errdesc_t* server_start() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return errdesc_set(errno);
    const unique_fd report(ends[0]);
    unique_fd reporter(ends[1]);
    const pid_t child = fork();
    if (child < 0)
        return errdesc_set(errno);
    if (child == 0) {
        become_daemon(reporter.get());
        server_loop(report_fd);
    }
    reporter.reset();
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    const std::string text = read_report(report.get());
    return text == server_is_ready ? nullptr
                                   : errdesc_set_fmt(EIO, "%s", text.empty() ? "the server died" : text.c_str());
}

}  // namespace mirador
