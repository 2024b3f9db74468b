// SPDX-License-Identifier: Apache-2.0
#include "appliance/autodiscover/process_check.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <vector>

#include "lib/clock.h"
#include "lib/errdesc.h"
#include "lib/file_io.h"
#include "lib/spawn.h"
#include "lib/tool_paths.h"

namespace mirador {
namespace {

constexpr std::size_t max_output = 4096;  // bytes; the rest is read and forgotten
constexpr int look_ms = 100;              // between two looks whether a silent tool lives

// Reads a tool's output to the tool's end: what it started and left behind may hold the pipe open. False, with the
// reason in errno, when the tool prints, or is silent, for too long, or the pipe fails.
bool read_output(pid_t pid, int fd, std::string* output) {
    const std::time_t end = clock_now() + spawn_tool_timeout;
    std::array<char, max_output> chunk{};
    while (clock_now() < end) {
        const bool alive = spawn_is_alive(pid);  // asked first: what it said last is still read
        pollfd readable = {.fd = fd, .events = POLLIN, .revents = 0};
        const int ready = poll(&readable, 1, alive ? look_ms : 0);
        if (ready == 0 && !alive)
            return true;
        const ssize_t got = ready > 0 ? read(fd, chunk.data(), chunk.size()) : -1;
        if (ready == 0 || (got < 0 && errno == EINTR))
            continue;
        if (got <= 0)
            return got == 0;
        output->append(chunk.data(), static_cast<std::size_t>(got));
        output->resize(std::min(output->size(), max_output));
    }
    errno = ETIME;
    return false;
}

// What a tool has to say.
struct answer_t {
    std::string output;
    bool success = false;  // it ended well
};

// Runs a tool; false, with the reason logged, when it has given no answer. `unread` is the text of a failed read, empty
// for none, `silent` that of a tool that prints nothing.
bool ask(const std::vector<std::string>& argv, const std::string& unread, const std::string& silent, answer_t* answer) {
    int out = -1;
    pid_t pid = -1;
    if (errdesc_t* e = spawn(argv, SPAWN_PIPE_FROM_CHILD, &out, nullptr, &pid, 0)) {
        _errdesc_log(e, ERRDESC_WARNING);
        return false;
    }
    unique_fd pipe(out);
    const bool complete = read_output(pid, pipe.get(), &answer->output);
    const int read_error = errno;
    pipe.reset();
    if (!complete)
        static_cast<void>(spawn_kill(pid, SIGKILL));
    if (answer->output.empty()) {
        if (!complete)
            _errdesc_log(unread.empty() ? errdesc_set(read_error) : errdesc_set_str(read_error, unread),
                         ERRDESC_WARNING);
        else
            _errdesc_log(errdesc_set_str(ERR_UNKNOWN, silent), ERRDESC_WARNING);
    }
    answer->success = spawn_wait(pid, 0, argv.front(), spawn_tool_timeout) == nullptr;
    return !answer->output.empty();
}

}  // namespace

bool job_started_and_running(const std::string& job_name) {
    if (job_name.empty()) {
        _errdesc_log(errdesc_set_str(ERR_INVALID_ARG, "Name of job is required."), ERRDESC_WARNING);
        return true;
    }
    answer_t answer;
    return !ask({tool_paths().pgrep, job_name}, "", "Failed to read job status.", &answer) || answer.success;
}

bool corcontroller_is_running() {
    answer_t answer;
    if (!ask({tool_paths().controller_watchdog}, "Failed to test corcontroller.", "Failed to read controller's status.",
             &answer))
        return true;
    return answer.success && answer.output.find("running") != std::string::npos;
}

}  // namespace mirador
