// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/hv_thr.h"

#include <atomic>
#include <list>
#include <thread>
#include <utility>

#include "appliance/autodiscover/process_check.h"
#include "appliance/exporter/vm_proxy_remove.h"
#include "appliance/exporter/vm_update.h"
#include "appliance/lib/registry.h"
#include "appliance/lib/shadow_names.h"
#include "controller/lib/managed_alert.h"
#include "lib/clock.h"
#include "lib/cor_assert.h"
#include "lib/log.h"
#include "lib/startup.h"
#include "lib/thread_annotations.h"

namespace mirador {
namespace {

constexpr unsigned poll_interval = 15;  // seconds between looks whether the services run

enum hv_state_t : std::uint32_t {
    HV_STATE_UNKNOWN = 0,
    HV_STATE_STARTING = 1,
    HV_STATE_RUNNING = 2,
    HV_STATE_STOPPING = 3,
    HV_STATE_STOPPED = 4,
};

struct hv_thr_state_t {
    static constexpr std::uint32_t magic_value = 0xbbeeeeee;
    static constexpr std::uint32_t version_value = 1;

    std::uint32_t magic = magic_value;
    std::uint32_t version = version_value;
    std::condition_variable_any cond;
    mutex_t mutex;
    std::atomic<hv_state_t> state = HV_STATE_UNKNOWN;
    std::thread thr;
    std::atomic<bool> work = false;
    std::uint64_t gen = 0;
    std::string hostname;  // of the hypervisor: identifies it
    std::string hv_path;   // its shadow directory
};

struct hv_thr_list_t {
    static constexpr std::uint32_t magic_value = 0xcccccccc;
    static constexpr std::uint32_t version_value = 1;

    std::uint32_t magic = magic_value;
    std::uint32_t version = version_value;
    std::list<hv_thr_state_t> list;
};

hv_thr_list_t& hv_thr_list() {
    static hv_thr_list_t the_list;
    cor_assert(the_list.magic == hv_thr_list_t::magic_value);
    cor_assert(the_list.version == hv_thr_list_t::version_value);
    return the_list;
}

void check_state(const hv_thr_state_t& state) {
    cor_assert(state.magic == hv_thr_state_t::magic_value);
    cor_assert(state.version == hv_thr_state_t::version_value);
}

bool services_run() {
    return job_started_and_running("datastore_fs") && job_started_and_running("run-controller");
}

void wait_for_work(hv_thr_state_t* state) REQUIRES(state->mutex) {
    while (state->state == HV_STATE_RUNNING && !(state->work && services_run()))
        clock_wait(state->cond, state->mutex, poll_interval);
}

void update_vms(const hv_thr_state_t& state) {
    const std::time_t start = clock_now();
    vm_update_all(state.hostname, [&state] { return state.state == HV_STATE_RUNNING; });
    ts_printf("hv_thr: updated %s in %ld seconds\n", state.hostname.c_str(), static_cast<long>(clock_now() - start));
}

void clear_away(const hv_thr_state_t& state) {
    if (errdesc_t* e = vm_proxy_remove_tree(state.hv_path))
        _errdesc_log(e, ERRDESC_ERROR);
    vm_refresh_below(state.hv_path);  // a user's folder may have the hypervisor's name and VMs of others
    if (errdesc_t* e = managed_alert_clear_hv(state.hostname, get_reg_settings()->names().appliance_uuid))
        _errdesc_log(e, ERRDESC_WARNING);
}

void hv_thr(hv_thr_state_t* state) {
    block_signals();
    check_state(*state);
    cor_assert(state->state == HV_STATE_STARTING);
    ts_printf("hv_thr: start: %s\n", state->hostname.c_str());
    const mutex_lock_t lock(state->mutex);
    vm_refresh_all(state->hostname);  // an earlier thread of this hypervisor took the directories away
    state->state = HV_STATE_RUNNING;
    while (state->state == HV_STATE_RUNNING) {
        wait_for_work(state);
        state->work = false;
        if (state->state == HV_STATE_RUNNING)
            update_vms(*state);
    }
    state->state = HV_STATE_STOPPING;
    clear_away(*state);
    ts_printf("hv_thr: stop: %s\n", state->hostname.c_str());
}

hv_thr_state_t& hv_thr_start(const std::string& hostname, const std::string& hv_path) {
    hv_thr_state_t& state = hv_thr_list().list.emplace_back();
    state.hostname = hostname;
    state.hv_path = hv_path;
    state.state = HV_STATE_STARTING;
    state.work = true;
    state.thr = std::thread(hv_thr, &state);
    return state;
}

// A thread that has not begun must be let begin, or it would take the order to stop for its own start.
void wait_until_started(const hv_thr_state_t& state) {
    while (state.state == HV_STATE_STARTING)
        std::this_thread::yield();
}

// Threads at work end at once, each by itself, while others are waited for.
void tell_to_stop(hv_thr_state_t* state) {
    check_state(*state);
    wait_until_started(*state);
    state->state = HV_STATE_STOPPING;
}

void stop_thread(hv_thr_state_t* state) {
    {
        const mutex_lock_t lock(state->mutex);
        state->cond.notify_all();
    }
    state->thr.join();
    state->state = HV_STATE_STOPPED;
    ts_printf("hv_thr_stop: %s: called\n", state->hostname.c_str());
}

// Wakes a thread that waits; one at work sees `work` when it is done.
void wake_idle(hv_thr_state_t* state) {
    if (!state->mutex.try_lock())
        return;
    const mutex_lock_t lock(state->mutex, std::adopt_lock);
    state->cond.notify_all();
}

}  // namespace

errdesc_t* hv_thr_update(const ks_hypervisor_config_t& hvc, std::uint64_t gen, const std::string& root_path) {
    const std::string& hostname = ks_text(hvc.hostname);
    for (hv_thr_state_t& state : hv_thr_list().list) {
        check_state(state);
        if (state.hostname != hostname)
            continue;
        state.gen = gen;
        state.work = true;
        wake_idle(&state);
        return nullptr;
    }
    std::string hv_path;
    RETURN_IF_ERROR(shadow_group_path(root_path, hostname, "Host name", &hv_path));
    hv_thr_start(hostname, hv_path).gen = gen;
    return nullptr;
}

void hv_thr_stop_old(std::uint64_t gen) {
    for (hv_thr_state_t& state : hv_thr_list().list)
        if (state.gen != gen)
            tell_to_stop(&state);
    hv_thr_list().list.remove_if([gen](hv_thr_state_t& state) {
        if (state.gen == gen)
            return false;
        stop_thread(&state);
        return true;
    });
}

void hv_thr_stop_all() {
    std::list<hv_thr_state_t>& list = hv_thr_list().list;
    for (hv_thr_state_t& state : list)
        tell_to_stop(&state);
    for (hv_thr_state_t& state : list)
        stop_thread(&state);
    list.clear();
}

}  // namespace mirador
