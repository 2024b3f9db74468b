// SPDX-License-Identifier: Apache-2.0
#include "lib/spawn.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <mutex>

#include "lib/clock.h"
#include "lib/cor_assert.h"
#include "lib/file_io.h"
#include "lib/thread_annotations.h"

namespace mirador {
namespace {

constexpr std::size_t text_size = 16384;
constexpr int first_own_fd = 3;

// Everything that the child needs, made before the fork: between fork and exec the child of a threaded process may
// neither allocate nor take a lock. The pointers go into texts that outlive it.
struct child_plan_t {
    std::vector<char*> argv;
    std::vector<char*> env;  // empty: the parent's environment
    unsigned flags = 0;
    int out_fd = -1;  // becomes standard output; -1 leaves it
    int in_fd = -1;   // becomes standard input; -1 leaves it
};

// Both ends of one pipe between parent and child.
struct pipe_ends_t {
    unique_fd parent;
    unique_fd child;
};

// Children that nobody waits for any more: killed at their time limit, or started without handing out the pid. They are
// reaped on a later occasion, so that none stays a zombie.
mutex_t _abandoned_mutex;
std::vector<pid_t> _abandoned GUARDED_BY(_abandoned_mutex);

void reap_abandoned() {
    const mutex_lock_t lock(_abandoned_mutex);
    std::erase_if(_abandoned, [](pid_t pid) { return waitpid(pid, nullptr, WNOHANG) != 0; });
}

void abandon(pid_t pid) {
    const mutex_lock_t lock(_abandoned_mutex);
    _abandoned.push_back(pid);
}

void sigchld_handler(int signo) {
    cor_assert(signo == SIGCHLD);
}

void install_sigchld_handler() {
    static std::once_flag once;
    std::call_once(once, [] {
        struct sigaction action {};
        action.sa_handler = sigchld_handler;
        action.sa_flags = SA_RESTART | SA_NOCLDSTOP;
        cor_assert(sigaction(SIGCHLD, &action, nullptr) == 0);
    });
}

std::string joined(const std::vector<std::string>& argv) {
    std::string text;
    for (const std::string& argument : argv)
        text += argument + ' ';
    text.resize(std::min(text.size(), text_size - 1));
    return text;
}

// exec's form of a list of texts: pointers into it, closed by a null.
std::vector<char*> exec_vector(const std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (const std::string& text : texts)
        pointers.push_back(const_cast<char*>(text.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

// Descriptors 0 to 2 are the child's standard streams; where this process has some of them closed, a pipe's ends would
// land there.
bool move_above_std(unique_fd* fd) {
    if (fd->get() < first_own_fd)
        fd->reset(fcntl(fd->get(), F_DUPFD_CLOEXEC, first_own_fd));
    return static_cast<bool>(*fd);
}

// False with errno. The ends are close-on-exec from the start: other threads fork meanwhile.
bool make_pipe(bool from_child, pipe_ends_t* ends) {
    std::array<int, 2> fds{};
    if (pipe2(fds.data(), O_CLOEXEC) != 0)
        return false;
    unique_fd read_end(fds[0]);
    unique_fd write_end(fds[1]);
    if (!move_above_std(&read_end) || !move_above_std(&write_end))
        return false;
    ends->parent = std::move(from_child ? read_end : write_end);
    ends->child = std::move(from_child ? write_end : read_end);
    return true;
}

// The parent's signal handlers are not the child's business: one that ran there between fork and exec would act on the
// wrong process's descriptors. All signals are blocked around the fork; the child starts with none blocked and those
// that the parent handles or ignores at their defaults.
void child_restore_signals() {
    struct sigaction defaults {};
    defaults.sa_handler = SIG_DFL;
    for (const int signo : {SIGHUP, SIGINT, SIGTERM, SIGPIPE, SIGCHLD})
        sigaction(signo, &defaults, nullptr);
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

// A copy of `fd` above the standard streams, so that putting one stream in place cannot overwrite the other's source.
int child_lift(int fd) {
    if (fd < 0 || fd >= first_own_fd)
        return fd;
    const int lifted = fcntl(fd, F_DUPFD, first_own_fd);
    cor_assert(lifted >= 0);
    return lifted;
}

void child_place(int fd, int std_fd) {
    if (fd >= 0)
        cor_assert(dup2(fd, std_fd) == std_fd);
}

// Runs in the child: async-signal-safe calls only.
[[noreturn]] void child_run(const child_plan_t& plan) {
    child_restore_signals();
    const int out_fd = child_lift(plan.out_fd);
    const int in_fd = child_lift(plan.in_fd);
    if ((plan.flags & SPAWN_NO_STDERR) != 0)
        close(STDERR_FILENO);
    child_place(out_fd, STDOUT_FILENO);
    child_place(in_fd, STDIN_FILENO);
    cor_close_on_exec();
    execve(plan.argv[0], plan.argv.data(), plan.env.empty() ? environ : plan.env.data());
    _exit(errno);
}

// A child with every signal blocked meanwhile; -1 with errno. vfork, for a fork would hold up all threads while it
// copies the page tables, and make each of them pay for the pages that they write before the child's exec.
pid_t fork_child(const child_plan_t& plan) {
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    cor_assert(pthread_sigmask(SIG_SETMASK, &all, &previous) == 0);
    const pid_t pid = vfork();
    if (pid == 0)
        child_run(plan);
    const int number = errno;
    cor_assert(pthread_sigmask(SIG_SETMASK, &previous, nullptr) == 0);
    errno = number;
    return pid;
}

void close_caller_fds(int* out_fd, int* in_fd) {
    const bool same = out_fd != nullptr && in_fd != nullptr && *out_fd == *in_fd;
    for (int* fd : {out_fd, in_fd}) {
        if (fd == nullptr || *fd < 0)
            continue;
        if (same && fd == in_fd)
            *fd = -1;
        else
            cor_safe_close(fd);
    }
}

// Makes the pipes that `flags` ask for and says in the plan what becomes the child's standard streams.
bool plan_streams(const int* out_fd, const int* in_fd, child_plan_t* plan, pipe_ends_t* from, pipe_ends_t* to) {
    if ((plan->flags & SPAWN_CALLER_FDS) != 0) {
        plan->out_fd = out_fd != nullptr ? *out_fd : -1;
        plan->in_fd = in_fd != nullptr ? *in_fd : -1;
        return true;
    }
    if ((plan->flags & SPAWN_PIPE_FROM_CHILD) != 0 && !make_pipe(true, from))
        return false;
    if ((plan->flags & SPAWN_PIPE_TO_CHILD) != 0 && !make_pipe(false, to))
        return false;
    plan->out_fd = from->child.get();
    plan->in_fd = to->child.get();
    return true;
}

void check_arguments(const std::vector<std::string>& argv, unsigned flags, const int* out_fd, const int* in_fd) {
    const bool pipes = (flags & (SPAWN_PIPE_FROM_CHILD | SPAWN_PIPE_TO_CHILD)) != 0;
    cor_assert(!argv.empty());
    cor_assert((flags & SPAWN_PIPE_FROM_CHILD) == 0 || out_fd != nullptr);
    cor_assert((flags & SPAWN_PIPE_TO_CHILD) == 0 || in_fd != nullptr);
    cor_assert((flags & SPAWN_CALLER_FDS) == 0 || !pipes);
}

errdesc_t* kill_and_report_timeout(pid_t pid, const std::string& text) {
    kill(pid, SIGKILL);
    if (waitpid(pid, nullptr, WNOHANG) == 0)
        abandon(pid);
    return errdesc_set_str(ETIME, text);
}

// Blocks until `pid` has ended and leaves it to be reaped, so that its number cannot have become another process's.
void await_end(pid_t pid) {
    siginfo_t info{};
    while (waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) != 0 && errno == EINTR)
        continue;
}

}  // namespace

errdesc_t* spawn_env(const std::vector<std::string>& argv, unsigned flags, int* out_fd, int* in_fd, pid_t* pid,
                     int timeout_s, const std::vector<std::string>* envp) {
    check_arguments(argv, flags, out_fd, in_fd);
    install_sigchld_handler();
    reap_abandoned();

    if ((flags & SPAWN_PIPE_FROM_CHILD) != 0)
        *out_fd = -1;
    if ((flags & SPAWN_PIPE_TO_CHILD) != 0)
        *in_fd = -1;
    const std::string text = joined(argv);
    child_plan_t plan{exec_vector(argv), envp != nullptr ? exec_vector(*envp) : std::vector<char*>(), flags};
    pipe_ends_t from_child;
    pipe_ends_t to_child;
    if (!plan_streams(out_fd, in_fd, &plan, &from_child, &to_child))
        return errdesc_set_str(errno, text);
    const pid_t child = fork_child(plan);
    if (child < 0)
        return errdesc_set_str(errno, text);

    if (pid != nullptr)
        *pid = child;
    from_child.child.reset();
    to_child.child.reset();
    if ((flags & SPAWN_CALLER_FDS) != 0)
        close_caller_fds(out_fd, in_fd);
    if ((flags & SPAWN_WAIT) != 0)
        RETURN_IF_ERROR(spawn_wait(child, 0, text, timeout_s));
    else if (pid == nullptr)
        abandon(child);
    if ((flags & SPAWN_PIPE_FROM_CHILD) != 0)
        *out_fd = from_child.parent.release();
    if ((flags & SPAWN_PIPE_TO_CHILD) != 0)
        *in_fd = to_child.parent.release();
    return nullptr;
}

errdesc_t* spawn(const std::vector<std::string>& argv, unsigned flags, int* out_fd, int* in_fd, pid_t* pid,
                 int timeout_s) {
    return spawn_env(argv, flags, out_fd, in_fd, pid, timeout_s, nullptr);
}

errdesc_t* spawn_tool(const std::vector<std::string>& argv, int timeout_s) {
    return spawn(argv, SPAWN_WAIT, nullptr, nullptr, nullptr, timeout_s);
}

errdesc_t* spawn_wait(pid_t pid, int options, const std::string& text, int timeout_s) {
    cor_assert(pid > 0);
    cor_assert(timeout_s >= 0);
    reap_abandoned();
    if (timeout_s == 0)
        await_end(pid);
    for (int left = timeout_s; left > 0;) {
        int status = 0;
        const pid_t ended = waitpid(pid, &status, options | WNOHANG);
        if (ended == pid)
            return errdesc_exit_status(status, text);
        if (ended < 0 && errno == EINTR)
            continue;
        if (ended < 0)
            return errdesc_set_str(errno, text);
        clock_poll(1);
        left--;
    }
    return kill_and_report_timeout(pid, text);
}

bool spawn_is_alive(pid_t pid) {
    siginfo_t info{};
    return pid > 0 && waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
           info.si_pid == 0;
}

errdesc_t* spawn_kill(pid_t pid, int signal) {
    if (pid <= 0 || kill(pid, signal) != 0)
        (void)errdesc_set(pid <= 0 ? ESRCH : errno);
    return nullptr;
}

void spawn_write() {
    cor_assert_text(false, "0");
    __builtin_unreachable();
}

void spawn_read() {
    cor_assert_text(false, "0");
    __builtin_unreachable();
}

}  // namespace mirador
