// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/snapshot_thr.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <condition_variable>
#include <limits>
#include <mutex>
#include <thread>
#include <utility>

#include "appliance/exporter/snapshot_frozen.h"
#include "appliance/exporter/snapshot_make.h"
#include "appliance/exporter/snapshot_remove.h"
#include "appliance/exporter/snapshot_scrub.h"
#include "appliance/exporter/snapshot_state.h"
#include "appliance/exporter/vm_proxy_evict.h"
#include "appliance/exporter/vm_state.h"
#include "appliance/exporter/vm_update.h"
#include "appliance/lib/registry.h"
#include "lib/clock.h"
#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/log.h"
#include "lib/startup.h"
#include "lib/thread_annotations.h"

namespace mirador {
namespace {

constexpr unsigned pass_interval = 15;        // seconds
constexpr std::time_t scrub_interval = 3600;  // seconds
constexpr std::time_t suspicion = 300;

enum snapshot_thr_state_t : std::uint32_t {
    SNAPSHOT_THR_UNKNOWN = 0,
    SNAPSHOT_THR_STARTING = 1,
    SNAPSHOT_THR_RUNNING = 2,
    SNAPSHOT_THR_STOPPING = 3,
    SNAPSHOT_THR_STOPPED = 4,
};

struct snapshot_thr_t {
    static constexpr std::uint32_t magic_value = 0xcccddccc;
    static constexpr std::uint32_t version_value = 1;

    std::uint32_t magic = magic_value;
    std::uint32_t version = version_value;
    std::condition_variable_any cond;
    mutex_t mutex;
    std::thread thr;
    std::atomic<snapshot_thr_state_t> state = SNAPSHOT_THR_UNKNOWN;
    std::atomic<bool> hurries = false;  // no more waiting: the daemon ends
    bool work GUARDED_BY(mutex) = true;
    std::time_t snapshot_next_scrub GUARDED_BY(mutex) = 0;
    std::time_t suspect_until GUARDED_BY(mutex) = 0;  // a snapshot of which there is no record may appear until then
    snapshot_list_t list;
};

// Of the process: the list may be walked by threads that end after main.
snapshot_thr_t& snapshot_thr_state() {
    static snapshot_thr_t& the_state = *std::make_unique<snapshot_thr_t>().release();
    cor_assert(the_state.magic == snapshot_thr_t::magic_value);
    cor_assert(the_state.version == snapshot_thr_t::version_value);
    return the_state;
}

bool goes_on() {
    return !snapshot_state_hurries();
}

// Whether the clock was set back after a time was set to `length` seconds from then.
bool was_set_back(std::time_t now, std::time_t time, std::time_t length) {
    return time - now > length;
}

// Goes on in each pass for a while after the start and after a failed creation: an agent of the run before, or the
// hypervisor, may still be making a snapshot; and until every hypervisor has been seen.
void find_leftover(snapshot_thr_t* thr, std::time_t now) REQUIRES(thr->mutex) {
    bool saw_all = false;
    if (errdesc_t* e = snapshot_state_find_leftover(&thr->list, &saw_all))
        _errdesc_log(e, ERRDESC_WARNING);
    if (saw_all && (now >= thr->suspect_until || was_set_back(now, thr->suspect_until, suspicion)))
        thr->suspect_until = 0;
}

// One that could not be made for want of an identity is made in the next pass.
void scrub(snapshot_thr_t* thr, std::time_t now) REQUIRES(thr->mutex) {
    bool had_identity = false;
    if (errdesc_t* e = snapshot_scrub(&thr->list, now, &had_identity))
        _errdesc_log(e, ERRDESC_WARNING);
    if (had_identity)
        thr->snapshot_next_scrub = now + scrub_interval;
}

void pass(snapshot_thr_t* thr) REQUIRES(thr->mutex) {
    thr->mutex.unlock();
    errdesc_t* e = vm_proxy_evict(get_reg_settings()->snapshot_max_idle == 0);
    if (e != nullptr && e->number != EMFILE)  // nothing idle is what mostly comes
        _errdesc_log(e, ERRDESC_WARNING);
    thr->mutex.lock();
    const std::time_t now = clock_now();
    snapshot_state_remove_old(
        &thr->list, {.now = now, .blocking = get_reg_settings()->snapshot_blocking_removal, .goes_on = goes_on});
    if (thr->suspect_until != 0)
        find_leftover(thr, now);
    if (now > thr->snapshot_next_scrub || was_set_back(now, thr->snapshot_next_scrub, scrub_interval))
        scrub(thr, now);
}

void remove_all(snapshot_thr_t* thr) REQUIRES(thr->mutex) {
    constexpr std::time_t end_of_time = std::numeric_limits<std::time_t>::max();
    snapshot_state_remove_old(&thr->list, {.now = end_of_time,
                                           .max_ref = std::numeric_limits<std::int64_t>::max(),
                                           .blocking = false,
                                           .is_last = true,
                                           .goes_on = goes_on});
}

void snapshot_thr() {
    block_signals();
    snapshot_thr_t& thr = snapshot_thr_state();
    cor_assert(thr.state == SNAPSHOT_THR_STARTING);
    const mutex_lock_t lock(thr.mutex);
    thr.state = SNAPSHOT_THR_RUNNING;
    thr.suspect_until = clock_now() + suspicion;
    find_leftover(&thr, clock_now());
    while (thr.state == SNAPSHOT_THR_RUNNING) {
        while (!thr.work) {
            clock_wait(thr.cond, thr.mutex, pass_interval);
            thr.work = true;  // whatever woke it
        }
        thr.work = false;
        if (thr.state == SNAPSHOT_THR_RUNNING)
            pass(&thr);
    }
    remove_all(&thr);
}

void snapshot_thr_start() {
    snapshot_thr_t& thr = snapshot_thr_state();
    thr.state = SNAPSHOT_THR_STARTING;
    thr.thr = std::thread(snapshot_thr);
}

// Whether the controller shows no snapshot where it showed ours, or it was looked for in vain: somebody else has
// removed it, and the VM writes to what it froze.
bool is_gone(const snapshot_state_t& state) {
    int shown = 0;
    if (state.is_lost)
        return true;
    return !state.is_leftover() &&
           vm_count_snapshots_anywhere(*state.vm_shadow_path, state.hvname, state.vmuuid, &shown) == nullptr &&
           shown == 0;
}

// A snapshot that an earlier run left is as old as that run, and one whose removal failed may be gone or going: nobody
// reads from them.
bool is_unusable(const snapshot_state_t& state) {
    return state.ref == 0 && (state.is_leftover() || state.removal_begun || is_gone(state));
}

errdesc_t* drop_unusable(snapshot_thr_t* thr, snapshot_state_ptr* state) REQUIRES(thr->mutex) {
    while (*state != nullptr && is_unusable(**state)) {
        snapshot_state_distrust_elsewhere(thr->list, (*state)->hvname, (*state)->vmuuid);
        RETURN_IF_ERROR(snapshot_state_destroy_waiting(state->get(), goes_on));
        cor_assert(list_delete(thr->list, *state));
        *state = snapshot_state_find(thr->list, (*state)->hvname, (*state)->vmuuid);
    }
    return nullptr;
}

errdesc_t* make_state(snapshot_thr_t* thr, const snapshot_request_t& request, snapshot_state_ptr* state)
    REQUIRES(thr->mutex) {
    snapshot_made_t made;
    snapshot_state_distrust_elsewhere(thr->list, request.hvname, request.vmuuid);
    errdesc_t* e = snapshot_state_new(request, &made);
    if (e != nullptr && made.left_behind)
        thr->suspect_until = clock_now() + suspicion;
    RETURN_IF_ERROR(e);
    list_add(thr->list, made.state);
    *state = std::move(made.state);
    return nullptr;
}

std::string time_text(std::time_t time) {
    std::array<char, sizeof "2038-01-19 03:14:07"> text{};
    std::tm parts{};
    localtime_r(&time, &parts);
    (void)std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts);
    return text.data();
}

std::string host_name() {
    std::array<char, HOST_NAME_MAX + 1> name{};
    (void)gethostname(name.data(), name.size() - 1);
    return name.data();
}

void log_update(const snapshot_request_t& request, snapshot_action_t action, const snapshot_state_t* state) {
    const char* word = action == SNAPSHOT_CREATE ? "create" : "remove";
    const std::string host = host_name();
    if (state == nullptr)
        ts_printf("snapshot_update: path = %s, uuid = %s/%s, %s, not found\n", request.path.c_str(),
                  request.caller_uuid.c_str(), host.c_str(), word);
    else
        ts_printf(
            "snapshot_update: path = %s, hvname = %s, vmname = %s, quiesce = %d, uuid = %s/%s, ctime = %s, ref = "
            "%jd, %s\n",
            request.path.c_str(), state->hvname.c_str(), state->vmname.c_str(), state->quiesce ? 1 : 0,
            request.caller_uuid.c_str(), host.c_str(), time_text(state->ctime).c_str(),
            static_cast<std::intmax_t>(state->ref), word);
}

errdesc_t* read_header_anew(const std::string& file_shadow_path, vm_proxy_header_t* header) {
    std::unique_ptr<vm_proxy_header_t> fresh;
    RETURN_IF_ERROR(vm_settle_disk(file_shadow_path));
    RETURN_IF_ERROR(vm_proxy_read_header_checked(file_shadow_path, &fresh));
    *header = *fresh;
    return nullptr;
}

void count(snapshot_state_t* state, snapshot_action_t action) {
    snapshot_state_check(*state);
    state->ref += action == SNAPSHOT_CREATE ? 1 : -1;
    state->atime = clock_now();
    snapshot_state_check(*state);
}

// To make a snapshot of a VM removes what bears its name already: what somebody reads from must not go.
errdesc_t* refuse_if_used_elsewhere(const snapshot_thr_t& thr, const snapshot_request_t& request) REQUIRES(thr.mutex) {
    const snapshot_state_ptr other = snapshot_state_used_elsewhere(thr.list, request.hvname, request.vmuuid);
    if (other == nullptr)
        return nullptr;
    return errdesc_set_fmt(EBUSY, "Disks of virtual machine '%s' are open through hypervisor '%s'",
                           other->vmname.c_str(), other->hvname.c_str());
}

// The record that the action is about; null when there is none to give back.
errdesc_t* find_or_make(snapshot_thr_t* thr, const snapshot_request_t& request, snapshot_action_t action,
                        snapshot_state_ptr* state) REQUIRES(thr->mutex) {
    *state = snapshot_state_find(thr->list, request.hvname, request.vmuuid);
    if (action == SNAPSHOT_REMOVE)
        return nullptr;
    RETURN_IF_ERROR(refuse_if_used_elsewhere(*thr, request));
    RETURN_IF_ERROR(drop_unusable(thr, state));
    if (*state != nullptr && is_gone(**state))
        return snapshot_no_longer_there(**state);
    return *state != nullptr ? nullptr : make_state(thr, request, state);
}

}  // namespace

void snapshot_state_init() {
    static std::once_flag once;
    std::call_once(once, snapshot_thr_start);
}

void snapshot_state_shutdown() {
    snapshot_thr_t& thr = snapshot_thr_state();
    thr.hurries = true;
    if (!thr.thr.joinable()) {
        const mutex_lock_t lock(thr.mutex);
        remove_all(&thr);
        return;
    }
    while (thr.state == SNAPSHOT_THR_STARTING)  // the thread would take the order to stop for its own start
        std::this_thread::yield();
    thr.state = SNAPSHOT_THR_STOPPING;
    {
        const mutex_lock_t lock(thr.mutex);
        thr.cond.notify_all();
    }
    thr.thr.join();
    thr.state = SNAPSHOT_THR_STOPPED;
}

void kick_snapshot_thr() {
    snapshot_thr_state().cond.notify_all();
}

void snapshot_state_hurry() {
    snapshot_thr_state().hurries = true;
}

bool snapshot_state_hurries() {
    return snapshot_thr_state().hurries;
}

errdesc_t* snapshot_update(const std::string& path, const std::string& file_shadow_path, const std::string& master_uuid,
                           snapshot_action_t action, vm_proxy_header_t* header, std::string* vmname,
                           std::time_t* ctime) {
    cor_assert(action == SNAPSHOT_CREATE || action == SNAPSHOT_REMOVE);
    if (header->can_snapshot == 0) {
        if (vmname->empty())
            *vmname = header->vm_uuid;
        *ctime = 0;
        return nullptr;
    }
    const snapshot_request_t request{path, file_shadow_path, master_uuid, header->hv_name, header->vm_uuid, goes_on};
    snapshot_thr_t& thr = snapshot_thr_state();
    const mutex_lock_t lock(thr.mutex);
    snapshot_state_ptr state;
    errdesc_t* e = find_or_make(&thr, request, action, &state);
    if (e != nullptr && state == nullptr)
        log_update(request, action, nullptr);
    RETURN_IF_ERROR(e);
    if (action == SNAPSHOT_CREATE)
        RETURN_IF_ERROR(read_header_anew(file_shadow_path, header));
    if (state != nullptr) {
        count(state.get(), action);
        if (vmname->empty())
            *vmname = state->vmname;
        *ctime = state->ctime;
    }
    log_update(request, action, state.get());
    snapshot_state_dump(thr.list);
    return nullptr;
}

bool snapshot_existed(const std::string& hv_name, const std::string& vm_uuid) {
    return snapshot_state_find(snapshot_thr_state().list, hv_name, vm_uuid) != nullptr;
}

bool snapshot_is_gone(const std::string& hv_name, const std::string& vm_uuid) {
    const errdesc_keeper_t keeper;
    const snapshot_state_ptr state = snapshot_state_find(snapshot_thr_state().list, hv_name, vm_uuid);
    return state != nullptr && is_gone(*state);
}

errdesc_t* snapshot_scrub_ex(const std::string& hv_name, const std::string& vm_uuid, const std::string& snapshot_name) {
    snapshot_thr_t& thr = snapshot_thr_state();
    const mutex_lock_t lock(thr.mutex);
    const snapshot_state_ptr state = snapshot_state_find(thr.list, hv_name, vm_uuid);
    if ((state != nullptr && state->ref > 0) || snapshot_state_used_elsewhere(thr.list, hv_name, vm_uuid) != nullptr)
        return errdesc_set_fmt(EBUSY, "Snapshot '%s' is still in use and cannot be removed.", snapshot_name.c_str());
    if (state == nullptr) {
        snapshot_state_distrust_elsewhere(thr.list, hv_name, vm_uuid);
        return snapshot_remove_named(hv_name, vm_uuid, snapshot_name);
    }
    state->atime = 0;  // unused for long enough
    kick_snapshot_thr();
    return errdesc_set_fmt(EAGAIN, "Removing snapshot '%s' is in progress.", snapshot_name.c_str());
}

errdesc_t* snapshot_use_t::take(const std::string& path, const std::string& file_shadow_path, vm_proxy_header_t* header,
                                std::string* vmname, std::time_t* ctime, std::shared_ptr<snapshot_use_t>* use) {
    const vm_proxy_header_t taken = *header;  // names the VM that has to be given back
    RETURN_IF_ERROR(snapshot_update(path, file_shadow_path, get_reg_settings()->names().master_uuid, SNAPSHOT_CREATE,
                                    header, vmname, ctime));
    use->reset(new snapshot_use_t(path, file_shadow_path, taken,
                                  snapshot_state_find(snapshot_thr_state().list, taken.hv_name, taken.vm_uuid)));
    return nullptr;
}

bool snapshot_use_t::is_gone() const {
    return snapshot_is_gone(header_.hv_name, header_.vm_uuid);
}

errdesc_t* snapshot_use_t::check_frozen(const std::string& vmdk_path) const {
    return state_ == nullptr ? nullptr : snapshot_check_frozen(state_.get(), vmdk_path);
}

errdesc_t* snapshot_use_t::check_not_lost() const {
    return state_ == nullptr ? nullptr : snapshot_check_not_lost(state_.get());
}

snapshot_use_t::~snapshot_use_t() {
    const errdesc_keeper_t keeper;
    std::string vmname;
    std::time_t ctime = 0;
    if (errdesc_t* e = snapshot_update(path_, shadow_path_, get_reg_settings()->names().master_uuid, SNAPSHOT_REMOVE,
                                       &header_, &vmname, &ctime))
        _errdesc_log(e, ERRDESC_ERROR);
}

}  // namespace mirador
