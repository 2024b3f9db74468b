// SPDX-License-Identifier: Apache-2.0
// Agents kept running between calls and shared by all threads. An agent is one thread's between get and release; idle
// ones serve whoever asks next with the same command line. An idle agent that is dead, broken or unused for 120 seconds
// is ended, and the one idle longest when there are more than 16 agents.
//
// Own mutex, held also while an agent is started or ended (up to 120 seconds for one that does not end).
//
// At shutdown: jrpcclnt_pool_begin_shutdown() before the threads that call agents are joined,
// jrpcclnt_pool_destroy() when they are.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "lib/errdesc.h"
#include "lib/jrpc.h"
#include "lib/thread_annotations.h"

namespace mirador {

// Seconds after which a call that does not return is given up at shutdown, and its agent killed.
inline constexpr unsigned jrpcclnt_pool_call_limit = 120;

// A live agent started with the command line `argv`: an idle one or a new one. *handle must be null (asserted); it is
// the caller's until jrpcclnt_pool_release. While two agents of that command line or more are in use, one that is idle
// is taken after 1 + 2 + 3 seconds only. Errors: jrpc_connect's; ERR_CANCELLED with argv[0] once the pool is destroyed.
[[nodiscard]] errdesc_t* jrpcclnt_pool_get(const std::vector<std::string>& argv, jrpc_handle_t** handle);

// Gives the agent back and sets *handle to null. Always succeeds, and leaves the calling thread's error descriptor
// alone, so that a failure may be passed up after it. Asserted: the handle is one in use.
errdesc_t* jrpcclnt_pool_release(jrpc_handle_t** handle);

// Ends the idle agents that are not worth keeping. Always succeeds.
errdesc_t* jrpcclnt_pool_evict();

// Agents in the pool; those in use. Neither waits.
std::size_t jrpcclnt_pool_size();
std::size_t jrpcclnt_pool_in_use();

// From now on a call that lasts longer than jrpcclnt_pool_call_limit fails, and its agent is killed: whoever waits for
// a silent agent comes back. Agents can be had and called as before. Does not wait.
void jrpcclnt_pool_begin_shutdown();

// Ends all agents, those in use when they are released; from the start of it none can be had. One that is not released
// within twice jrpcclnt_pool_call_limit is killed and its handle left to whoever has it. Done once, at exit at the
// latest; a second caller waits for the first.
void jrpcclnt_pool_destroy();

// Whether the process's pool has threads: one that looks for agents to end every 180 seconds and, at shutdown, one that
// looks for overdue calls. Read when the pool is first used. A test with a hand-driven clock, which they would drive,
// turns them off.
extern std::atomic<bool> _jrpcclnt_pool_with_threads;

struct jrpcclnt_pool_entry_t {
    bool inuse = false;
    std::time_t last_access = 0;  // when it was taken or released
    std::string hint;             // the command line, its words joined by a blank
    std::unique_ptr<jrpc_handle_t> handle;
};

// A pool. The process has one, which the functions above work on; tests make their own.
class jrpcclnt_pool_t {
  public:
    explicit jrpcclnt_pool_t(bool with_threads);
    ~jrpcclnt_pool_t();  // destroys it
    jrpcclnt_pool_t(const jrpcclnt_pool_t&) = delete;
    jrpcclnt_pool_t& operator=(const jrpcclnt_pool_t&) = delete;

    [[nodiscard]] errdesc_t* get(const std::vector<std::string>& argv, jrpc_handle_t** handle);
    errdesc_t* release(jrpc_handle_t** handle);
    errdesc_t* evict();
    std::size_t size() const { return size_; }
    std::size_t in_use() const { return in_use_; }
    void begin_shutdown();
    void destroy();

  private:
    using entries_t = std::vector<std::unique_ptr<jrpcclnt_pool_entry_t>>;

    jrpcclnt_pool_entry_t* _walk(const std::string& hint, unsigned* busy) REQUIRES(mutex_);
    jrpcclnt_pool_entry_t* _find(const std::string& hint) REQUIRES(mutex_);
    errdesc_t* _connect(const std::vector<std::string>& argv, const std::string& hint, jrpcclnt_pool_entry_t** entry)
        REQUIRES(mutex_);
    void _evict() REQUIRES(mutex_);
    void _count() REQUIRES(mutex_);
    void _end(entries_t evicted) REQUIRES(mutex_);
    void _stop_thread();
    void _end_all();
    void _cleanup();

    const bool with_threads_;
    mutex_t mutex_;
    std::condition_variable_any cond_;  // the end of the pool, an agent released
    bool running_ GUARDED_BY(mutex_) = true;
    entries_t entries_ GUARDED_BY(mutex_);
    std::atomic<std::size_t> size_ = 0;
    std::atomic<std::size_t> in_use_ = 0;
    std::once_flag shutdown_once_;
    std::once_flag destroy_once_;
    std::optional<jrpc_watch_t> watch_;  // made by begin_shutdown, gone with destroy
    std::thread thread_;                 // runs once there is an agent
};

}  // namespace mirador
