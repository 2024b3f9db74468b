// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/snapshot_make.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <memory>
#include <utility>
#include <vector>

#include "appliance/exporter/snapshot_alerts.h"
#include "appliance/exporter/snapshot_frozen.h"
#include "appliance/exporter/snapshot_remove.h"
#include "appliance/exporter/snapshot_space.h"
#include "appliance/exporter/vm_state.h"
#include "appliance/exporter/vm_update.h"
#include "appliance/lib/registry.h"
#include "controller/lib/controller.h"
#include "lib/clock.h"
#include "lib/fault_point.h"
#include "lib/log.h"

namespace mirador {
namespace {

constexpr unsigned retry_pause = 15;            // seconds
constexpr std::time_t snapshot_patience = 300;  // until the controller has seen a snapshot, seconds
constexpr int undo_attempts = 5;
constexpr unsigned undo_pause = 1;

// The retries of one creation, all its steps together.
class attempts_t {
  public:
    explicit attempts_t(const std::function<bool()>& goes_on) : goes_on_(goes_on) {}

    // Whether a step may be tried once more, and its number then; otherwise the caller's error stands.
    bool take(int* retry) {
        if (!goes_on_() || count_ >= get_reg_settings()->snapshot_retry_limit)
            return false;
        *retry = ++count_;
        return true;
    }
    // The pause before the retry; false when the daemon ends.
    bool pause() const { return snapshot_pause(retry_pause, goes_on_); }

  private:
    const std::function<bool()>& goes_on_;
    int count_ = 0;
};

// Calls `step` until it succeeds or its error is none to try again after. Another task of the hypervisor is waited for
// with `busy_text`, whose %d is the number of the retry.
template <typename step_t>
errdesc_t* while_busy(attempts_t* attempts, const char* busy_text, step_t step) {
    for (;;) {
        errdesc_t* e = step();
        int retry = 0;
        if (e == nullptr || e->number != EALREADY || !attempts->take(&retry))
            return e;
        ts_printf("%s, pause 15 sec and retry (%d)...\n", busy_text, retry);
        const errdesc_keeper_t keeper;
        if (!attempts->pause())
            return e;
    }
}

// Removes what bears the snapshot's name already.
errdesc_t* remove_orphans(const snapshot_state_t& state, const ks_hypervisor_config_t& hvc, attempts_t* attempts) {
    for (;;) {
        errdesc_t* e = snapshot_remove(snapshot_state_desc(state, hvc, true), nullptr);
        int retry = 0;
        if (e == nullptr || (e->number != ENOENT && e->number != EALREADY) || !attempts->take(&retry))
            return e;
        ts_printf("WARNING: Removing orphan snapshot(s), retry (%d)\n", retry);
        const errdesc_keeper_t keeper;
        if (e->number == EALREADY && !attempts->pause())
            return e;
    }
}

// How many of this vendor's snapshots the VM has: another appliance may keep one.
errdesc_t* count_vendors(const snapshot_state_t& state, const ks_hypervisor_config_t& hvc, int* count) {
    const std::string& vendor_id = get_reg_settings()->names().vendor_id;
    std::vector<snapshotdesc_t> found;
    RETURN_IF_ERROR(snapshot_list(hvc, ESX_HYPERVISOR, snapshot_name_pattern(vendor_id), &found));
    *count = static_cast<int>(std::ranges::count_if(found, [&](const snapshotdesc_t& desc) {
        return desc.vmuuid == state.vmuuid && snapshot_name_is_vendors(desc.snapshotname, vendor_id);
    }));
    return nullptr;
}

// *before: the snapshots that the controller shows, once they are no more than the VM has: one that is gone but still
// shown would pass for the one about to be made, and the disks would be read where they no longer are. Whether those of
// other appliances of this vendor are shown is the controller's.
errdesc_t* settle(const snapshot_state_t& state, const ks_hypervisor_config_t& hvc,
                  const std::function<bool()>& goes_on, int* before) {
    const std::string& path = *state.vm_shadow_path;
    int existing = 0;
    RETURN_IF_ERROR(vm_count_snapshots(path, before));
    if (*before == 0)
        return nullptr;
    RETURN_IF_ERROR(count_vendors(state, hvc, &existing));
    for (std::time_t waited = 0; *before > existing; waited++) {
        if (waited >= snapshot_patience || !goes_on())
            return errdesc_set_fmt(ETIME, "%s has %d snapshots, and still shows %d", path.c_str(), existing, *before);
        clock_sleep(1);
        RETURN_IF_ERROR(vm_count_snapshots(path, before));
    }
    return nullptr;
}

// Takes the snapshot. *expected grows by the number of snapshots that the VM must show then. From the first order to
// make one, one may exist, whatever is answered: an agent may act and die before it tells.
errdesc_t* take_snapshot(snapshot_state_t* state, const ks_hypervisor_config_t& hvc, attempts_t* attempts,
                         int* expected) {
    const snapshotdesc_t desc = snapshot_state_desc(*state, hvc, false);
    int count = 0;
    state->snapshot_created = true;
    RETURN_IF_ERROR(while_busy(attempts, "WARNING: Creating top snapshot: another task is in progress",
                               [&] { return snapshot_create(desc, &count); }));
    RETURN_IF_ERROR(fault_point("snapshot.top_created"));
    ts_printf("Creating snapshot %s on %s %s\n", state->snapshotname.c_str(), state->vmname.c_str(),
              state->hvname.c_str());
    RETURN_IF_ERROR(
        while_busy(attempts, "WARNING: Another task is in progress", [&] { return snapshot_create(desc, nullptr); }));
    *expected += count + 1;
    return nullptr;
}

// Waits until the VM's disks are told as the snapshot froze them, and takes that over into the shadow tree.
errdesc_t* follow_snapshot(const snapshot_state_t& state, int expected, attempts_t* attempts,
                           const std::function<bool()>& goes_on) {
    int shown = 0;
    RETURN_IF_ERROR(vm_wait_snapshot(*state.vm_shadow_path, expected, snapshot_patience, goes_on));
    for (;;) {
        errdesc_t* e = vm_update(*state.vm_shadow_path, true, true);
        if (e == nullptr)  // of a VM that was retired meanwhile nothing was updated
            return vm_count_snapshots(*state.vm_shadow_path, &shown);
        int retry = 0;
        if (!attempts->take(&retry))
            return e;
        const errdesc_keeper_t keeper;
        _errdesc_log(e, ERRDESC_WARNING);
        if (!attempts->pause())
            return e;
    }
}

errdesc_t* fill_state(const snapshot_request_t& request, snapshot_state_t* state, std::unique_ptr<ks_vm_config_t>* vm) {
    const std::string& vendor_id = get_reg_settings()->names().vendor_id;
    RETURN_IF_ERROR(snapshot_name_make(vendor_id, request.caller_uuid, std::nullopt, &state->snapshotname));
    RETURN_IF_ERROR(controller_get_vm(vm, request.vmuuid));
    const ks_vm_config_t* const vmc = vm->get();
    if (vmc == nullptr)
        return errdesc_set_fmt(EINVAL,
                               "Cannot find VM config for vm_uuid %s (hv_name %s, path %s), the uuid may be invalid.",
                               request.vmuuid.c_str(), request.hvname.c_str(), request.path.c_str());
    state->vmname = ks_text(vmc->vm_name);
    state->quiesce = vmc->quiesce_enabled;
    return snapshot_name_make(vendor_id, request.caller_uuid, vmc->snap_suffix, &state->snapshotname);
}

// How the snapshot is found among the VM's from now on.
void know_in_database(snapshot_state_t* state) {
    state->database = snapshot_database_of(*state->vm_shadow_path);
    state->number = snapshot_number_in(state->database, state->snapshotname);
    if (!state->number)
        ts_printf("%s does not list the snapshot '%s'\n", state->database.c_str(), state->snapshotname.c_str());
}

errdesc_t* make(const snapshot_request_t& request, snapshot_state_t* state) {
    attempts_t attempts(request.goes_on);
    int expected = 0;
    std::unique_ptr<ks_vm_config_t> vmc;
    RETURN_IF_ERROR(fill_state(request, state, &vmc));
    RETURN_IF_ERROR(controller_get_hypervisor(&state->hypervisor, state->hvname));
    RETURN_IF_ERROR(snapshot_state_lock(request.file_shadow_path, &state->lockfd, true));
    RETURN_IF_ERROR(fault_point("snapshot.locked"));
    snapshot_check_space(state->hypervisor, *vmc);
    RETURN_IF_ERROR(remove_orphans(*state, state->hypervisor, &attempts));
    RETURN_IF_ERROR(fault_point("snapshot.orphans_removed"));
    RETURN_IF_ERROR(settle(*state, state->hypervisor, request.goes_on, &expected));
    RETURN_IF_ERROR(take_snapshot(state, state->hypervisor, &attempts, &expected));
    RETURN_IF_ERROR(fault_point("snapshot.created"));
    RETURN_IF_ERROR(follow_snapshot(*state, expected, &attempts, request.goes_on));
    know_in_database(state);
    return fault_point("snapshot.followed");
}

// Removes again what a creation that failed may have made.
void undo(snapshot_state_t* state, const std::function<bool()>& goes_on) {
    for (int attempt = 1;; attempt++) {
        errdesc_t* e = snapshot_state_destroy(state, false, false, nullptr);
        if (e == nullptr)
            return;
        if (attempt == undo_attempts || !goes_on()) {
            _errdesc_print(e, ERRDESC_ERROR);
            return;
        }
        clock_sleep(undo_pause);
    }
}

}  // namespace

errdesc_t* snapshot_state_new(const snapshot_request_t& request, snapshot_made_t* made) {
    auto state = std::make_shared<snapshot_state_t>();
    state->hvname = request.hvname;
    state->vmuuid = request.vmuuid;
    state->vm_shadow_path = request.file_shadow_path.substr(0, request.file_shadow_path.rfind('/'));
    errdesc_t* e = make(request, state.get());
    if (e != nullptr)
        _errdesc_log(e, ERRDESC_ERROR);
    if (!state->hvname.empty() && !state->vmname.empty())
        raise_snapshot_alert(state->hvname, state->vmname, e, SNAPSHOT_CREATE);
    if (e != nullptr) {
        const errdesc_keeper_t keeper;
        made->left_behind = state->snapshot_created;
        undo(state.get(), request.goes_on);
        return e;
    }
    state->ctime = clock_now();
    made->state = std::move(state);
    return nullptr;
}

}  // namespace mirador
