// SPDX-License-Identifier: Apache-2.0
#include "lib/jrpc.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <limits>
#include <string_view>
#include <utility>

#include "lib/clock.h"
#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/log.h"
#include "lib/spawn.h"
#include "lib/startup.h"

namespace mirador {

std::atomic<unsigned> _jrpc_sleep_during_disconnect = 0;

namespace {

constexpr std::size_t read_size = 65536;
constexpr int liveness_check_ms = 1000;
constexpr std::string_view white_space = " \t\r\n";

constexpr const char* transport_failure = "JRPC Transport Failure";
constexpr const char* no_response = "Failed to get response to JRPC request";

// The calls that wait for an agent. Its pid stays its own meanwhile: only jrpc_disconnect reaps it, and that needs the
// mutex which the call holds.
struct call_t {
    pid_t pid;
    std::time_t since;
    bool killed = false;
};
mutex_t _calls_mutex;
std::vector<call_t*> _calls GUARDED_BY(_calls_mutex);

class call_record_t {
  public:
    explicit call_record_t(pid_t pid) : call_{pid, clock_now()} {
        const mutex_lock_t lock(_calls_mutex);
        _calls.push_back(&call_);
    }
    ~call_record_t() {
        const mutex_lock_t lock(_calls_mutex);
        std::erase(_calls, &call_);
    }
    call_record_t(const call_record_t&) = delete;
    call_record_t& operator=(const call_record_t&) = delete;

  private:
    call_t call_;
};

void kill_overdue_calls(std::time_t begin, unsigned limit) {
    const mutex_lock_t lock(_calls_mutex);
    for (call_t* call : _calls) {
        if (call->killed || clock_now() - std::max(begin, call->since) < limit)
            continue;
        ts_printf("agent %d is killed: its call has not returned within %u seconds\n", call->pid, limit);
        (void)spawn_kill(call->pid, SIGKILL);
        call->killed = true;
    }
}

// Waits until a stream of the agent can be read (written). False when nothing will come (go) any more because the agent
// has ended, though a process that it left behind may hold the other end open for ever.
bool await_stream(pid_t pid, int fd, short events) {
    for (;;) {
        const bool alive = spawn_is_alive(pid);  // asked first: what the agent said last is still read
        pollfd stream{fd, events, 0};
        const int ready = poll(&stream, 1, alive ? liveness_check_ms : 0);
        if (ready > 0 || (ready < 0 && errno != EINTR))
            return true;
        if (ready == 0 && !alive)
            return false;
    }
}

// Appends what has arrived to `unread`. 0, or errno: EPIPE at the end of the stream.
int read_some(jrpc_handle_t& handle) REQUIRES(handle.mutex) {
    std::array<char, read_size> chunk;  // uninitialised
    ssize_t got = 0;
    do
        got = read(handle.read_fd.get(), chunk.data(), chunk.size());
    while (got < 0 && errno == EINTR);
    if (got <= 0)
        return got < 0 ? handle.read_error = errno : EPIPE;
    handle.unread.append(chunk.data(), static_cast<std::size_t>(got));
    return 0;
}

// Drops the white space behind the last reply. 0, or errno when the agent said more than that or has hung up: a request
// that was sent then could not be answered, but might be carried out.
int settle(jrpc_handle_t& handle) REQUIRES(handle.mutex) {
    for (std::size_t dropped = 0; dropped <= jrpc_max_reply;) {
        if (handle.unread.find_first_not_of(white_space) != std::string::npos)
            return EPROTO;
        dropped += handle.unread.size();
        handle.unread.clear();
        pollfd stream{handle.read_fd.get(), POLLIN, 0};
        const int ready = poll(&stream, 1, 0);
        if (ready == 0)
            return 0;
        if (ready < 0 && errno != EINTR)
            return errno;
        const int number = ready < 0 ? 0 : read_some(handle);
        if (number != 0)
            return number;
    }
    return EPROTO;
}

// 0 or errno.
int write_line(jrpc_handle_t& handle, std::string_view line) REQUIRES(handle.mutex) {
    while (!line.empty()) {
        const ssize_t done = write(handle.write_fd.get(), line.data(), line.size());
        if (done >= 0)
            line.remove_prefix(static_cast<std::size_t>(done));
        else if (errno == EAGAIN && !await_stream(handle.pid, handle.write_fd.get(), POLLOUT))
            return handle.write_error = EPIPE;
        else if (errno != EAGAIN && errno != EINTR)
            return handle.write_error = errno;
    }
    return 0;
}

std::string request_line(const jrpc_args_t& args) {
    const json_ptr request(json_object_new_array());
    for (const std::string& arg : args)
        json_object_array_add(request.get(), json_object_new_string_len(arg.data(), static_cast<int>(arg.size())));
    return std::string(json_object_to_json_string_ext(request.get(), JSON_C_TO_STRING_PLAIN)) + '\n';
}

errdesc_t* send_request(jrpc_handle_t& handle, const jrpc_args_t& args) REQUIRES(handle.mutex) {
    int number = settle(handle);
    if (number == 0)
        number = write_line(handle, request_line(args));
    return number == 0 ? nullptr : errdesc_set_str(number, transport_failure);
}

errdesc_t* read_reply(jrpc_handle_t& handle, json_ptr* reply) REQUIRES(handle.mutex) {
    json_parser_t parser;
    for (std::size_t length = 0; length <= jrpc_max_reply;) {
        if (!await_stream(handle.pid, handle.read_fd.get(), POLLIN))
            return errdesc_set_str(handle.read_error = EPIPE, no_response);
        if (const int number = read_some(handle))
            return errdesc_set_str(number, no_response);
        std::size_t used = 0;
        const json_parser_t::outcome_t outcome = parser.feed(handle.unread, &used);
        handle.unread.erase(0, used);
        length += used;
        if (outcome == json_parser_t::MORE)
            continue;
        *reply = parser.take();
        const bool is_object = outcome == json_parser_t::WHOLE && json_object_is_type(reply->get(), json_type_object);
        return is_object ? nullptr : errdesc_set(ERR_JSON_PARSE_ERROR);
    }
    return errdesc_set_str(EMSGSIZE, no_response);
}

errdesc_t* exchange(jrpc_handle_t& handle, const jrpc_args_t& args, json_ptr* reply) {
    const mutex_lock_t lock(handle.mutex);
    if (handle.broken)
        return errdesc_set_str(EPIPE, transport_failure);
    const call_record_t record(handle.pid);
    errdesc_t* error = send_request(handle, args);
    if (error == nullptr)
        error = read_reply(handle, reply);
    if (error != nullptr)
        handle.broken = true;
    return error;
}

// Raises what the agent reports, as if raised there.
errdesc_t* raise_remote(json_object* encoded) {
    jrpc_err_t remote;
    if (encoded == nullptr || jdr_jrpc_err_t(JDR_DECODE, &encoded, nullptr, &remote) < 0)
        return errdesc_set(ERR_JSON_PARSE_ERROR);
    const bool is_number = remote.err_num > 0 && remote.err_num <= std::numeric_limits<errnum_t>::max();
    errdesc_t* const error = _errdesc_set_fmt(is_number ? static_cast<errnum_t>(remote.err_num) : ERR_UNKNOWN,
                                              remote.linenumber, remote.filename, "%s", "");
    cor_safe_strncpy(error->string, remote.err_string, sizeof error->string);  // longer than a format's text may be
    return error;
}

// Logs that a stream failed.
void log_stream_error(int number) {
    if (number != 0)
        _errdesc_log(errdesc_set(number), ERRDESC_ERROR);
}

}  // namespace

jrpc_handle_t::~jrpc_handle_t() {
    cor_assert(pid < 0);
}

ssize_t jdr_jrpc_err_t(jdr_op_t op, json_object** obj, const char* key, jrpc_err_t* err) {
    if (op == JDR_SIZE)
        return sizeof *err;
    json_object* sub = jdr_get_sub_obj(op, *obj, key);
    if (op == JDR_ENCODE && *obj == nullptr)
        *obj = sub;
    const bool failed = jdr_uint32(op, &sub, "err_num", &err->err_num) < 0 ||
                        jdr_string(op, &sub, "err_string", &err->err_string) < 0 ||
                        jdr_uint32(op, &sub, "linenumber", &err->linenumber) < 0 ||
                        jdr_string(op, &sub, "filename", &err->filename) < 0;
    if (op == JDR_FREE)
        _jdr_delete(*obj, key);
    return failed ? jdr_failed : static_cast<ssize_t>(sizeof *err);
}

errdesc_t* jrpc_connect(const std::vector<std::string>& argv, std::unique_ptr<jrpc_handle_t>* handle) {
    cor_assert(!argv.empty());
    if (access(argv[0].c_str(), X_OK) != 0)
        return errdesc_set_str(errno, argv[0]);
    int out_fd = -1;
    int in_fd = -1;
    pid_t pid = -1;
    RETURN_IF_ERROR(spawn(argv, SPAWN_PIPE_FROM_CHILD | SPAWN_PIPE_TO_CHILD, &out_fd, &in_fd, &pid, 0));

    *handle = std::make_unique<jrpc_handle_t>();
    jrpc_handle_t& agent = **handle;
    const mutex_lock_t lock(agent.mutex);
    agent.pid = pid;
    agent.read_fd.reset(out_fd);
    agent.write_fd.reset(in_fd);
    cor_assert(fcntl(in_fd, F_SETFL, O_NONBLOCK) == 0);
    return nullptr;
}

void jrpc_hang_up(jrpc_handle_t& handle) {
    const mutex_lock_t lock(handle.mutex);
    handle.broken = true;
    handle.write_fd.reset();
    handle.read_fd.reset();
}

errdesc_t* jrpc_disconnect(std::unique_ptr<jrpc_handle_t>* handle) {
    cor_assert(handle != nullptr && *handle != nullptr);
    jrpc_handle_t& agent = **handle;
    std::unique_ptr<jrpc_handle_t> own;
    {
        const mutex_lock_t lock(agent.mutex);
        if (const unsigned seconds = _jrpc_sleep_during_disconnect; seconds > 0)
            clock_sleep(seconds);
        own = std::move(*handle);
        log_stream_error(agent.write_error);
        log_stream_error(agent.read_error);
    }
    jrpc_hang_up(agent);
    return spawn_wait(std::exchange(agent.pid, -1), 0, "cmd failed", jrpc_disconnect_timeout);
}

bool jrpc_is_alive(const jrpc_handle_t* handle) {
    return handle != nullptr && !handle->broken && spawn_is_alive(handle->pid);
}

errdesc_t* jrpc_call(jrpc_handle_t& handle, const jrpc_args_t& args, const jrpc_result_fn_t& result_fn) {
    cor_assert(!args.empty());
    json_ptr reply;
    RETURN_IF_ERROR(exchange(handle, args, &reply));
    json_object* encoded = nullptr;
    if (json_object_object_get_ex(reply.get(), "errdesc", &encoded))
        return raise_remote(encoded);
    if (!result_fn)
        return nullptr;
    json_object* const type = _jdr_get(reply.get(), "response_type");
    json_object* const data = _jdr_get(reply.get(), "response_data");
    const bool is_named = json_object_is_type(type, json_type_string) != 0;
    return result_fn(is_named ? json_object_get_string(type) : "UNKNOWN", data);
}

errdesc_t* jrpc_call_raw(jrpc_handle_t& handle, const jrpc_args_t& args, json_ptr* result) {
    return jrpc_call(handle, args, [result](const std::string&, json_object* data) -> errdesc_t* {
        if (result != nullptr)
            result->reset(json_object_get(data));
        return nullptr;
    });
}

jrpc_watch_t::jrpc_watch_t(unsigned limit) : limit_(limit), begin_(clock_now()), thread_([this] { _run(); }) {}

jrpc_watch_t::~jrpc_watch_t() {
    {
        const mutex_lock_t lock(mutex_);
        stop_ = true;
    }
    cond_.notify_all();
    thread_.join();
}

void jrpc_watch_t::_run() {
    block_signals();
    const mutex_lock_t lock(mutex_);
    while (!stop_) {
        clock_wait(cond_, mutex_, 1);
        kill_overdue_calls(begin_, limit_);
    }
}

}  // namespace mirador
