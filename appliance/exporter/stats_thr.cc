// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/stats_thr.h"

#include <algorithm>
#include <atomic>
#include <deque>
#include <memory>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "appliance/exporter/stats_list.h"
#include "appliance/lib/registry.h"
#include "controller/lib/controller_raw.h"
#include "lib/clock.h"
#include "lib/cor_assert.h"
#include "lib/errdesc.h"
#include "lib/json_tools.h"
#include "lib/log.h"
#include "lib/startup.h"
#include "lib/thread_annotations.h"

namespace mirador {
namespace {

constexpr const char* stats_object = "vmstats";
constexpr unsigned period = 15;            // seconds between passes
constexpr unsigned stop_patience = 10;     // seconds for the last pass
constexpr std::size_t max_waiting = 1000;  // figures; beyond it the oldest is dropped

// Figures of one file that are sent by themselves.
struct stats_figures_t {
    const char* origin;  // the function that they came by
    std::string path;
    std::vector<std::pair<const char*, std::uint64_t>> members;
};

struct stats_thr_state_t {
    static constexpr std::uint32_t version_value = 0x55555555;
    static constexpr std::uint32_t magic_value = 0xcafebeef;

    std::uint32_t version = version_value;
    std::uint32_t magic = magic_value;
    mutex_t mutex;  // the thread's, held during a pass

    mutex_t wake_mutex;  // a leaf, held for moments
    std::condition_variable_any cond;
    std::atomic<stats_state_t> state = STATS_THR_STATE_UNKNOWN;  // changed with wake_mutex held
    bool work GUARDED_BY(wake_mutex) = false;                    // a pass is due
    bool ended GUARDED_BY(wake_mutex) = false;
    std::deque<stats_figures_t> waiting GUARDED_BY(wake_mutex);
    std::thread thr GUARDED_BY(wake_mutex);

    std::atomic<bool> enabled = false;
    stats_list_t list;
};

// Never destroyed: the thread may outlive a main that ends early.
stats_thr_state_t& checked_state() {
    static stats_thr_state_t* const the_state = std::make_unique<stats_thr_state_t>().release();
    cor_assert(the_state->version == stats_thr_state_t::version_value);
    cor_assert(the_state->magic == stats_thr_state_t::magic_value);
    return *the_state;
}

// Sends an array of objects.
bool post(const char* origin, json_object* array) {
    if (get_reg_settings()->cbt_debug_enabled) {
        ts_printf("%s: updating vmstats\n", origin);
        json_debug_dump(array);
    }
    errdesc_t* e = controller_post_json(stats_object, array);
    if (e != nullptr)
        _errdesc_print(e, ERRDESC_ERROR);
    return e == nullptr;
}

json_ptr new_object(const std::string& path) {
    json_ptr object(json_object_new_object());
    json_add_string_field(object.get(), "vmdk_path", path);
    return object;
}

bool post_figures(const stats_figures_t& figures) {
    const json_ptr array(json_object_new_array());
    json_ptr object = new_object(figures.path);
    for (const auto& [name, value] : figures.members)
        json_add_uint64_field(object.get(), name, value);
    json_object_array_add(array.get(), object.release());
    return post(figures.origin, array.get());
}

std::optional<stats_figures_t> take_figures(stats_thr_state_t* state) {
    const mutex_lock_t lock(state->wake_mutex);
    if (state->waiting.empty())
        return std::nullopt;
    stats_figures_t figures = std::move(state->waiting.front());
    state->waiting.pop_front();
    return figures;
}

bool is_of_same(const stats_figures_t& one, const stats_figures_t& other) {
    return one.origin == other.origin && one.path == other.path;
}

// What could not be sent waits on, unless something newer does. It goes to the end: figures that the controller refuses
// must not keep the others.
void put_back(stats_thr_state_t* state, stats_figures_t figures) {
    const mutex_lock_t lock(state->wake_mutex);
    const auto is_same = [&](const stats_figures_t& other) { return is_of_same(figures, other); };
    if (std::ranges::none_of(state->waiting, is_same) && state->waiting.size() < max_waiting)
        state->waiting.push_back(std::move(figures));
}

// Sends the figures that wait, up to the first that fails.
void post_waiting(stats_thr_state_t* state) {
    while (std::optional<stats_figures_t> figures = take_figures(state)) {
        if (post_figures(*figures))
            continue;
        put_back(state, std::move(*figures));
        return;
    }
}

json_ptr entry_json(const stats_thr_entry_t& entry) {
    json_ptr object = new_object(entry.path);
    const auto put = [&](const char* name, const char* name2, std::uint64_t value, std::uint64_t value2) {
        json_add_uint64_field(object.get(), entry.sr2_stat ? name2 : name, entry.sr2_stat ? value2 : value);
    };
    if (!entry.marked_for_close)
        put("vmdk_last_read_time", "vmdk_last_read_time2", static_cast<std::uint64_t>(entry.last_read_time),
            static_cast<std::uint64_t>(entry.last_read_time2));
    put("vmdk_bytes_read", "vmdk_bytes_read2", entry.bytes_read, entry.bytes_read2);
    put("vmdk_bytes_skipped", "vmdk_bytes_skipped2", entry.bytes_skipped, entry.bytes_skipped2);
    put("delta_bytes_read", "delta_bytes_read2", entry.delta_bytes_read, entry.delta_bytes_read2);
    put("delta_bytes_skipped", "delta_bytes_skipped2", entry.delta_bytes_skipped, entry.delta_bytes_skipped2);
    return object;
}

void post_counters(stats_thr_state_t* state) {
    const std::vector<stats_thr_entry_t> entries = state->list.report();
    if (entries.empty())
        return;
    const json_ptr array(json_object_new_array());
    for (const stats_thr_entry_t& entry : entries)
        json_object_array_add(array.get(), entry_json(entry).release());
    if (post("stats_thr", array.get()))
        state->list.reported(entries);
}

// One pass: the figures first, a file's size stands before its counters.
void pass(stats_thr_state_t* state) REQUIRES(state->mutex) {
    post_waiting(state);
    post_counters(state);
}

// Waits until a pass is due: somebody woke the thread, or the period is over. False when the thread is to end.
bool wait_for_pass(stats_thr_state_t* state) {
    const mutex_lock_t lock(state->wake_mutex);
    while (!state->work && state->state == STATS_THR_STATE_RUNNING) {
        clock_wait(state->cond, state->wake_mutex, period);
        state->work = true;
    }
    state->work = false;
    return state->state == STATS_THR_STATE_RUNNING;
}

void change_state(stats_thr_state_t* state, stats_state_t from, stats_state_t to) {
    const mutex_lock_t lock(state->wake_mutex);
    cor_assert(state->state == from);
    state->state = to;
    state->cond.notify_all();
}

void tell_end(stats_thr_state_t* state) {
    const mutex_lock_t lock(state->wake_mutex);
    state->ended = true;
    state->cond.notify_all();
}

void stats_thr() {
    block_signals();
    stats_thr_state_t* const state = &checked_state();
    change_state(state, STATS_THR_STATE_STARTING, STATS_THR_STATE_RUNNING);
    bool goes_on = true;
    while (goes_on) {
        goes_on = wait_for_pass(state);
        const mutex_lock_t lock(state->mutex);
        pass(state);
    }
    ts_printf("stats_thr: stopping\n");
    tell_end(state);
}

void start(stats_thr_state_t* state) REQUIRES(state->wake_mutex) {
    ts_printf("stats_thr_start\n");
    state->state = STATS_THR_STATE_STARTING;
    state->work = true;
    state->ended = false;
    state->thr = std::thread(stats_thr);
}

// Whether counts are taken. The first one starts the thread.
bool is_in_use(stats_thr_state_t* state) {
    if (state->state == STATS_THR_STATE_UNKNOWN && state->enabled) {
        const mutex_lock_t lock(state->wake_mutex);
        if (state->state == STATS_THR_STATE_UNKNOWN)
            start(state);
    }
    return state->state != STATS_THR_STATE_UNKNOWN && state->state != STATS_THR_STATE_STOPPED;
}

void send_at_once(stats_figures_t figures) {
    stats_thr_state_t* const state = &checked_state();
    if (!is_in_use(state))
        return;
    const mutex_lock_t lock(state->wake_mutex);
    std::erase_if(state->waiting, [&](const stats_figures_t& other) { return is_of_same(figures, other); });
    if (state->waiting.size() >= max_waiting)
        state->waiting.pop_front();
    state->waiting.push_back(std::move(figures));
    state->work = true;
    state->cond.notify_all();
}

bool wait_for_end(stats_thr_state_t* state) REQUIRES(state->wake_mutex) {
    const std::time_t end = clock_now() + stop_patience;
    while (!state->ended && clock_now() < end)
        clock_wait(state->cond, state->wake_mutex, stop_patience);
    return state->ended;
}

// Takes the thread's handle when it has been told to stop; it has ended, or hangs on something that nothing ends.
std::thread stop_thread(stats_thr_state_t* state) REQUIRES(state->wake_mutex) {
    while (state->state == STATS_THR_STATE_STARTING)  // it would take the order to stop for its own start
        state->cond.wait(state->wake_mutex);
    if (state->state != STATS_THR_STATE_RUNNING)
        return {};
    state->state = STATS_THR_STATE_STOPPING;
    state->cond.notify_all();
    if (!wait_for_end(state)) {
        ts_printf("stats_thr_stop: the controller does not answer, what it was asked is given up\n");
        controller_raw_give_up();
        if (!wait_for_end(state))
            state->thr.detach();
    }
    return std::exchange(state->thr, {});
}

}  // namespace

void stats_thr_enable() {
    checked_state().enabled = true;
}

void stats_thr_start() {
    stats_thr_state_t& state = checked_state();
    const mutex_lock_t lock(state.wake_mutex);
    if (state.state == STATS_THR_STATE_UNKNOWN || state.state == STATS_THR_STATE_STOPPED)
        start(&state);
}

void stats_thr_stop() {
    stats_thr_state_t& state = checked_state();
    std::thread thr;
    {
        const mutex_lock_t lock(state.wake_mutex);
        thr = stop_thread(&state);
        state.state = STATS_THR_STATE_STOPPED;
        state.waiting.clear();
    }
    state.list.clear();
    if (!thr.joinable())
        return;
    thr.join();
    ts_printf("stats_thr_stop\n");
}

void stats_thr_lock() NO_THREAD_SAFETY_ANALYSIS {
    checked_state().mutex.lock();
}

void stats_thr_unlock() NO_THREAD_SAFETY_ANALYSIS {
    checked_state().mutex.unlock();
}

void stats_thr_update_stats(const std::string& path, std::int32_t bytes_read, std::int32_t bytes_skipped, bool sr2) {
    stats_thr_state_t& state = checked_state();
    if (is_in_use(&state))
        state.list.update(path, bytes_read, bytes_skipped, sr2);
}

void stats_thr_close_stats(const std::string& path, bool sr2) {
    checked_state().list.close(path, sr2);
}

void stats_thr_update_cbt(const std::string& path, const cbt_file_header_t* header) {
    if (header == nullptr) {
        ts_printf("stats_thr_update_cbt: invalid args received\n");
        return;
    }
    const cbt_file_header_t h = *header;  // its members may lie at any address
    const std::int64_t pad = h.corcbt_file_size - h.block_data_offset - h.total_change_size;
    send_at_once({__func__,
                  path,
                  {{"vmdk_flat_file_size", static_cast<std::uint64_t>(h.flat_file_size)},
                   {"cbt_overhead_bytes", static_cast<std::uint64_t>(h.block_data_offset)},
                   {"cbt_changed_bytes", static_cast<std::uint64_t>(h.total_change_size)},
                   {"cbt_pad_bytes", static_cast<std::uint64_t>(pad)}}});
}

void stats_thr_update_flat_size(const std::string& path, std::int64_t size) {
    send_at_once({__func__, path, {{"vmdk_flat_file_size", static_cast<std::uint64_t>(size)}}});
}

}  // namespace mirador
