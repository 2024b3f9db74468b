// SPDX-License-Identifier: Apache-2.0
#include "lib/startup.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>

#include "lib/cor_assert.h"
#include "lib/cor_string.h"

namespace mirador {
namespace {

// The system log keeps the pointer; the handler reads the path. Both are written once, before any thread runs.
std::array<char, path_size> _program_name{};
std::array<char, path_size> _log_file{};
std::optional<struct sigaction> _previous_sighup;

// Soft and hard, as far as the process may.
void lift_core_limit() {
    rlimit limit{RLIM_INFINITY, RLIM_INFINITY};
    if (setrlimit(RLIMIT_CORE, &limit) == 0 || getrlimit(RLIMIT_CORE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    (void)setrlimit(RLIMIT_CORE, &limit);
}

// Every file that a client holds open takes a descriptor, and with none left disks could not be opened nor the log. Not
// beyond `enough`: some programs that are run go through all numbers.
void lift_descriptor_limit() {
    constexpr rlim_t enough = 65536;
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= enough)
        return;
    limit.rlim_cur = std::min(limit.rlim_max, enough);
    (void)setrlimit(RLIMIT_NOFILE, &limit);
}

void sigpipe_handler(int) {}

struct sigaction handler_action(void (*handler)(int), int flags) {
    struct sigaction action {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigemptyset(&action.sa_mask);
    return action;
}

// A function, not "ignore": the file-system library takes an ignored SIGPIPE for its own setting and restores the
// default when it ends, while shut-down still talks to peers that may be gone. exec resets it in children.
void survive_broken_pipes() {
    const struct sigaction action = handler_action(sigpipe_handler, SA_RESTART);
    cor_assert(sigaction(SIGPIPE, &action, nullptr) == 0);
}

void redirect_output(const std::string& logdir) {
    cor_snprintf(_log_file.data(), _log_file.size(), "%s/%s", logdir.c_str(), _program_name.data());
    cor_assert(_log_file[0] != '\0');
    for (std::FILE* stream : {stdout, stderr}) {
        std::fflush(stream);
        std::setvbuf(stream, nullptr, _IONBF, 0);
    }
    logrotate_hndlr(SIGHUP);
    // Not SA_RESTART: the main thread's wait for the end of the file system, resumed after a hangup, would sleep
    // through a TERM that came with it.
    const struct sigaction action = handler_action(logrotate_hndlr, 0);
    struct sigaction previous {};
    cor_assert(sigaction(SIGHUP, &action, &previous) == 0);
    _previous_sighup = previous;
}

}  // namespace

void hold_std_streams() {
    int fd = -1;
    do
        fd = open("/dev/null", O_RDWR);  // the lowest number that is free
    while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd > STDERR_FILENO)
        close(fd);
}

errdesc_t* cor_startup(const cordesc_t* desc) {
    cor_assert(desc != nullptr);
    lift_core_limit();
    lift_descriptor_limit();
    cor_snprintf(_program_name.data(), _program_name.size(), "%s", desc->name.c_str());
    openlog(_program_name.data(), LOG_PID | LOG_PERROR, LOG_USER);
    survive_broken_pipes();
    if (desc->logdir)
        redirect_output(*desc->logdir);
    return nullptr;
}

errdesc_t* cor_exit() {
    closelog();
    if (_previous_sighup)
        cor_assert(sigaction(SIGHUP, &*_previous_sighup, nullptr) == 0);
    _previous_sighup.reset();
    return nullptr;
}

void logrotate_hndlr(int signo) {
    constexpr mode_t log_mode = 0640;  // while debugging, lines may hold what is not for everybody
    cor_assert(signo == SIGHUP);
    const int saved_errno = errno;
    // Not close-on-exec: the descriptor opened may be one of the two itself.
    const int fd = open(_log_file.data(), O_RDWR | O_CREAT | O_APPEND, log_mode);
    cor_assert(fd >= 0);
    cor_assert(dup2(fd, STDOUT_FILENO) == STDOUT_FILENO);
    cor_assert(dup2(fd, STDERR_FILENO) == STDERR_FILENO);
    if (fd > STDERR_FILENO)
        close(fd);
    errno = saved_errno;
}

void block_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signo : {SIGTERM, SIGINT, SIGHUP})
        sigaddset(&signals, signo);
    cor_assert(pthread_sigmask(SIG_BLOCK, &signals, nullptr) == 0);
}

}  // namespace mirador
