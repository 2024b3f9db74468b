// SPDX-License-Identifier: Apache-2.0
#include "lib/jrpcclnt_pool.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <iterator>
#include <utility>

#include "lib/clock.h"
#include "lib/cor_assert.h"
#include "lib/log.h"
#include "lib/spawn.h"
#include "lib/startup.h"

namespace mirador {

std::atomic<bool> _jrpcclnt_pool_with_threads = true;

namespace {

constexpr std::time_t max_idle = 120;     // seconds
constexpr unsigned cleanup_period = 180;  // seconds
constexpr std::size_t max_entries = 16;
constexpr unsigned busy_for_delay = 2;  // agents of one command line

std::string hint_of(const std::vector<std::string>& argv) {
    std::string hint;
    for (const std::string& word : argv)
        hint += (hint.empty() ? "" : " ") + word;
    return hint;
}

// The process's pool. It outlives every thread that may still call it at exit.
jrpcclnt_pool_t& the_pool() {
    static jrpcclnt_pool_t& pool = []() -> jrpcclnt_pool_t& {
        cor_assert(std::atexit(jrpcclnt_pool_destroy) == 0);
        return *std::make_unique<jrpcclnt_pool_t>(_jrpcclnt_pool_with_threads).release();
    }();
    return pool;
}

}  // namespace

jrpcclnt_pool_t::jrpcclnt_pool_t(bool with_threads) : with_threads_(with_threads) {}

jrpcclnt_pool_t::~jrpcclnt_pool_t() {
    destroy();
}

// The first idle live agent of the command line; null when there is none. *busy is the number in use before it.
jrpcclnt_pool_entry_t* jrpcclnt_pool_t::_walk(const std::string& hint, unsigned* busy) {
    *busy = 0;
    for (const auto& entry : entries_) {
        if (entry->hint != hint || !jrpc_is_alive(entry->handle.get()))
            continue;
        if (!entry->inuse)
            return entry.get();
        ++*busy;
    }
    return nullptr;
}

// As _walk, but gives agents in use time to come back. The mutex is free meanwhile.
jrpcclnt_pool_entry_t* jrpcclnt_pool_t::_find(const std::string& hint) {
    unsigned busy = 0;
    jrpcclnt_pool_entry_t* entry = _walk(hint, &busy);
    for (const unsigned delay : {1U, 2U, 3U}) {
        if (entry == nullptr || busy < busy_for_delay)
            break;
        mutex_.unlock();
        clock_sleep(delay);
        mutex_.lock();
        entry = _walk(hint, &busy);
    }
    return entry;
}

errdesc_t* jrpcclnt_pool_t::_connect(const std::vector<std::string>& argv, const std::string& hint,
                                     jrpcclnt_pool_entry_t** entry) {
    auto connected = std::make_unique<jrpcclnt_pool_entry_t>();
    RETURN_IF_ERROR(jrpc_connect(argv, &connected->handle));
    connected->hint = hint;
    *entry = connected.get();
    entries_.push_back(std::move(connected));
    if (with_threads_ && !thread_.joinable())
        thread_ = std::thread([this] { _cleanup(); });
    return nullptr;
}

errdesc_t* jrpcclnt_pool_t::get(const std::vector<std::string>& argv, jrpc_handle_t** handle) {
    cor_assert(handle != nullptr && *handle == nullptr);
    const std::string hint = hint_of(argv);
    const mutex_lock_t lock(mutex_);
    jrpcclnt_pool_entry_t* entry = running_ ? _find(hint) : nullptr;
    if (!running_)
        return errdesc_set_str(ERR_CANCELLED, argv[0]);
    if (entry == nullptr)
        RETURN_IF_ERROR(_connect(argv, hint, &entry));
    entry->inuse = true;
    entry->last_access = clock_now();
    *handle = entry->handle.get();
    _evict();
    return nullptr;
}

errdesc_t* jrpcclnt_pool_t::release(jrpc_handle_t** handle) {
    cor_assert(handle != nullptr && *handle != nullptr);
    const errdesc_keeper_t keeper;
    const mutex_lock_t lock(mutex_);
    const auto found = std::find_if(entries_.begin(), entries_.end(),
                                    [handle](const auto& entry) { return entry->handle.get() == *handle; });
    cor_assert(found != entries_.end());
    cor_assert((*found)->inuse);
    (*found)->inuse = false;
    (*found)->last_access = clock_now();
    *handle = nullptr;
    _evict();
    cond_.notify_all();
    return nullptr;
}

errdesc_t* jrpcclnt_pool_t::evict() {
    const mutex_lock_t lock(mutex_);
    _evict();
    return nullptr;
}

void jrpcclnt_pool_t::_evict() {
    const std::time_t threshold = clock_now() - max_idle;
    entries_t kept;
    entries_t evicted;
    std::size_t oldest = SIZE_MAX;
    for (auto& entry : entries_) {
        const bool keep = entry->inuse || (entry->last_access >= threshold && jrpc_is_alive(entry->handle.get()));
        if (keep && !entry->inuse && (oldest == SIZE_MAX || entry->last_access < kept[oldest]->last_access))
            oldest = kept.size();
        (keep ? kept : evicted).push_back(std::move(entry));
    }
    if (oldest != SIZE_MAX && kept.size() > max_entries) {
        evicted.push_back(std::move(kept[oldest]));
        kept.erase(kept.begin() + static_cast<std::ptrdiff_t>(oldest));
    }
    entries_ = std::move(kept);
    _count();
    _end(std::move(evicted));
}

void jrpcclnt_pool_t::_count() {
    size_ = entries_.size();
    in_use_ = static_cast<std::size_t>(
        std::count_if(entries_.begin(), entries_.end(), [](const auto& entry) { return entry->inuse; }));
}

// All are told to end at once and so share the time that they may take.
void jrpcclnt_pool_t::_end(entries_t evicted) {
    for (const auto& entry : evicted)
        jrpc_hang_up(*entry->handle);
    const std::time_t deadline = clock_now() + jrpc_disconnect_timeout;
    for (const auto& entry : evicted) {
        if (clock_now() >= deadline)
            (void)spawn_kill(entry->handle->pid, SIGKILL);
        if (errdesc_t* error = jrpc_disconnect(&entry->handle))
            _errdesc_log(error, ERRDESC_INFO);
    }
}

void jrpcclnt_pool_t::_cleanup() {
    block_signals();
    const mutex_lock_t lock(mutex_);
    while (running_) {
        clock_wait(cond_, mutex_, cleanup_period);
        if (running_)
            _evict();
    }
}

void jrpcclnt_pool_t::begin_shutdown() {
    std::call_once(shutdown_once_, [this] {
        if (with_threads_)
            watch_.emplace(jrpcclnt_pool_call_limit);
    });
}

void jrpcclnt_pool_t::destroy() {
    std::call_once(destroy_once_, [this] {
        begin_shutdown();
        _stop_thread();
        _end_all();
        watch_.reset();
    });
}

void jrpcclnt_pool_t::_stop_thread() {
    {
        const mutex_lock_t lock(mutex_);
        running_ = false;
    }
    cond_.notify_all();
    if (thread_.joinable())
        thread_.join();
}

void jrpcclnt_pool_t::_end_all() {
    const mutex_lock_t lock(mutex_);
    const std::time_t deadline = clock_now() + 2 * jrpcclnt_pool_call_limit;
    for (;;) {
        const auto used =
            std::partition(entries_.begin(), entries_.end(), [](const auto& entry) { return entry->inuse; });
        entries_t idle(std::make_move_iterator(used), std::make_move_iterator(entries_.end()));
        entries_.erase(used, entries_.end());
        _count();
        _end(std::move(idle));
        if (entries_.empty() || clock_now() >= deadline)
            break;
        clock_wait(cond_, mutex_, 1);
    }
    for (const auto& entry : entries_) {
        ts_printf("agent %d is killed: it was not given back\n", entry->handle->pid);
        (void)spawn_kill(entry->handle->pid, SIGKILL);
    }
}

errdesc_t* jrpcclnt_pool_get(const std::vector<std::string>& argv, jrpc_handle_t** handle) {
    return the_pool().get(argv, handle);
}

errdesc_t* jrpcclnt_pool_release(jrpc_handle_t** handle) {
    return the_pool().release(handle);
}

errdesc_t* jrpcclnt_pool_evict() {
    return the_pool().evict();
}

std::size_t jrpcclnt_pool_size() {
    return the_pool().size();
}

std::size_t jrpcclnt_pool_in_use() {
    return the_pool().in_use();
}

void jrpcclnt_pool_begin_shutdown() {
    the_pool().begin_shutdown();
}

void jrpcclnt_pool_destroy() {
    the_pool().destroy();
}

}  // namespace mirador
