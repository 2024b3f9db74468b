// SPDX-License-Identifier: Apache-2.0
// Calls to an agent: a child process that reads one request a line from its standard input and answers each with one
// JSON value on its standard output. What it prints on standard error goes where this process's does, into the log.
//
// Request: a JSON array of strings, the method and its arguments. Reply: an object, either with "errdesc", the agent's
// error (jrpc_err_t), or with "response_type", a name, and "response_data", any value; both may be missing.
//
// Requests hold passwords: no log line and no error text tells what was sent.
//
// Requests and replies are matched by their order alone. After anything that may have put them out of step (no reply,
// a reply that is none, output that nobody asked for) the handle is broken for good: it is not alive, every further
// call fails, and only jrpc_disconnect() is left. What a late reply says is never taken for another call's.
//
// SIGPIPE must have a handler (cor_startup installs one): an agent that died is an error here, not a signal.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "lib/errdesc.h"
#include "lib/file_io.h"
#include "lib/jdr.h"
#include "lib/json_tools.h"
#include "lib/thread_annotations.h"

namespace mirador {

// The method, then its arguments.
using jrpc_args_t = std::vector<std::string>;

// A longer reply is none, in bytes of JSON text: an agent that prints without end must not take all memory.
inline constexpr std::size_t jrpc_max_reply = std::size_t{32} << 20;

// How long an agent may take to end once its streams are closed, in seconds. It is killed then.
inline constexpr int jrpc_disconnect_timeout = 120;

// One agent process. Made by jrpc_connect, ended by jrpc_disconnect; asserted: no other way.
struct jrpc_handle_t {
    jrpc_handle_t() = default;
    ~jrpc_handle_t();
    jrpc_handle_t(const jrpc_handle_t&) = delete;
    jrpc_handle_t& operator=(const jrpc_handle_t&) = delete;

    pid_t pid = -1;
    std::atomic<bool> broken = false;      // requests and replies are out of step
    mutex_t mutex;                         // one call at a time
    unique_fd read_fd GUARDED_BY(mutex);   // the agent's standard output
    unique_fd write_fd GUARDED_BY(mutex);  // the agent's standard input; never blocks
    std::string unread GUARDED_BY(mutex);  // what came behind the last reply
    int read_error GUARDED_BY(mutex) = 0;  // errno of the last failure of each stream, 0: none
    int write_error GUARDED_BY(mutex) = 0;
};

// An error that the agent reports. Decoded texts belong to the JSON that they were decoded from.
struct jrpc_err_t {
    std::uint32_t err_num = 0;
    const char* err_string = nullptr;
    std::uint32_t linenumber = 0;
    const char* filename = nullptr;
};

// Marshaller of a jrpc_err_t (lib/jdr.h).
ssize_t jdr_jrpc_err_t(jdr_op_t op, json_object** obj, const char* key, jrpc_err_t* err);

// Seconds that jrpc_disconnect sleeps first, with the handle's mutex held: for debugging.
extern std::atomic<unsigned> _jrpc_sleep_during_disconnect;

// Starts argv[0] with the arguments. Errors: errno with argv[0] when it cannot be run or has no pipes. That a program
// fails to run after all shows in the first call.
[[nodiscard]] errdesc_t* jrpc_connect(const std::vector<std::string>& argv, std::unique_ptr<jrpc_handle_t>* handle);

// Closes both streams, which tells the agent to end, and leaves the handle broken. Waits for a call on it to return.
void jrpc_hang_up(jrpc_handle_t& handle);

// Hangs up, waits for the agent to end and frees the handle; *handle is null afterwards. Errors: how the agent ended,
// or ETIME, with "cmd failed".
[[nodiscard]] errdesc_t* jrpc_disconnect(std::unique_ptr<jrpc_handle_t>* handle);

// Whether calls can be made: the agent runs and its handle is not broken. False for null.
bool jrpc_is_alive(const jrpc_handle_t* handle);

// Takes a reply's type name ("UNKNOWN" when it has none) and its data (null when it has none; the reply's own).
using jrpc_result_fn_t = std::function<errdesc_t*(const std::string& type, json_object* data)>;

// Calls the agent and waits for its reply, however long that takes; one thread at a time. Returns what `result_fn`
// returns, which runs without the handle's mutex. Errors:
//   errno, "JRPC Transport Failure": the request could not be sent (EPIPE also for a broken handle; EPROTO: the agent
//     had printed something that nobody asked for);
//   errno, "Failed to get response to JRPC request": reading failed, the agent ended first (EPIPE), the reply is longer
//     than jrpc_max_reply (EMSGSIZE);
//   ERR_JSON_PARSE_ERROR: the reply is no JSON object, or its "errdesc" is none;
//   the agent's own number with its text, line and file (ERR_UNKNOWN for 0 and for what is no errnum_t).
// All but the last, and an "errdesc" that is none, leave the handle broken. No number is 0.
[[nodiscard]] errdesc_t* jrpc_call(jrpc_handle_t& handle, const jrpc_args_t& args,
                                   const jrpc_result_fn_t& result_fn = nullptr);

// jrpc_call<T>: the same with the data decoded by `decode_fn`, a marshaller of T. `result_fn(type, T*)` gets null when
// the reply has no data; what it gets lives as long as its call. Further error: EPROTO when the data does not decode.
template <typename T, typename decode_fn_t, typename result_fn_t>
[[nodiscard]] errdesc_t* jrpc_call(jrpc_handle_t& handle, const jrpc_args_t& args, decode_fn_t decode_fn,
                                   result_fn_t result_fn) {
    return jrpc_call(handle, args, [&](const std::string& type, json_object* data) -> errdesc_t* {
        if (data == nullptr)
            return result_fn(type, static_cast<T*>(nullptr));
        T native{};
        json_object* obj = json_object_get(data);  // a reference of its own: freeing an array releases it
        errdesc_t* error = nullptr;
        if (decode_fn(JDR_DECODE, &obj, nullptr, &native) < 0)
            error = errdesc_set(EPROTO);
        else
            error = result_fn(type, &native);
        if (decode_fn(JDR_FREE, &obj, nullptr, &native) < 0 && error == nullptr)
            error = errdesc_set(EPROTO);
        json_object_put(obj);
        return error;
    });
}

// The same with the data as it is: *result, unless `result` is null, gets a reference of its own, or null when the
// reply has no data.
[[nodiscard]] errdesc_t* jrpc_call_raw(jrpc_handle_t& handle, const jrpc_args_t& args, json_ptr* result);

// While one lives, no call lasts for ever: an agent whose call has not returned `limit` seconds after the call began or
// the watch did, whichever is later, is killed, and the call fails. All agents of the process.
class jrpc_watch_t {
  public:
    explicit jrpc_watch_t(unsigned limit);
    ~jrpc_watch_t();
    jrpc_watch_t(const jrpc_watch_t&) = delete;
    jrpc_watch_t& operator=(const jrpc_watch_t&) = delete;

  private:
    void _run();

    const unsigned limit_;
    const std::time_t begin_;
    mutex_t mutex_;
    std::condition_variable_any cond_;
    bool stop_ GUARDED_BY(mutex_) = false;
    std::thread thread_;
};

}  // namespace mirador
