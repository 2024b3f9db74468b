// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/snapshot_remove.h"

#include <algorithm>
#include <cerrno>
#include <vector>

#include "appliance/exporter/controller_thr.h"
#include "appliance/exporter/snapshot_alerts.h"
#include "appliance/exporter/vm_state.h"
#include "appliance/exporter/vm_update.h"
#include "appliance/lib/registry.h"
#include "appliance/lib/shadow_names.h"
#include "controller/lib/controller.h"
#include "lib/clock.h"
#include "lib/cor_assert.h"
#include "lib/error_hash.h"
#include "lib/fault_point.h"
#include "lib/log.h"

namespace mirador {
namespace {

constexpr unsigned retry_pause = 15;           // seconds
constexpr std::time_t removal_patience = 300;  // until the controller no longer sees a snapshot, seconds
constexpr int choice_level = 2;

// The hypervisor as the controller knows it; while it cannot be asked, as it was when the snapshot was made.
errdesc_t* find_hypervisor(const snapshot_state_t& state, ks_hypervisor_config_t* hvc) {
    errdesc_t* e = controller_get_hypervisor(hvc, state.hvname);
    if (e == nullptr || ks_text(state.hypervisor.hostname).empty())
        return e;
    _errdesc_log(e, ERRDESC_WARNING);
    *hvc = state.hypervisor;
    return nullptr;
}

// After a removal: the VM's own disks are served again once the controller tells them.
errdesc_t* follow_removal(const snapshot_state_t& state, const std::function<bool()>& goes_on) {
    if (state.is_leftover())
        return nullptr;
    if (errdesc_t* e = vm_wait_snapshot(*state.vm_shadow_path, 0, removal_patience, goes_on)) {
        if (e->number != ERR_CANCELLED)
            ts_printf(
                "Snapshot of '%s' did not go away immediately. It may be consolidating in the background, which is "
                "normal.\n",
                state.vmname.c_str());
        _errdesc_log(e, ERRDESC_INFO);
        return nullptr;
    }
    return vm_update(*state.vm_shadow_path, true, false);
}

errdesc_t* remove_from_hypervisor(snapshot_state_t* state, bool blocking, bool alert,
                                  const std::function<bool()>& goes_on) {
    ks_hypervisor_config_t hvc;
    int count = 0;
    errdesc_t* e = find_hypervisor(*state, &hvc);
    if (e == nullptr)
        e = fault_point("snapshot.removing");
    if (e == nullptr) {
        ts_printf("Removing snapshot %s on %s %s\n", state->snapshotname.c_str(), state->vmname.c_str(),
                  state->hvname.c_str());
        e = snapshot_remove(snapshot_state_desc(*state, hvc, blocking), &count);
    }
    if (alert)
        raise_snapshot_alert(state->hvname, state->vmname, e, SNAPSHOT_REMOVE);
    RETURN_IF_ERROR(e);
    state->snapshot_created = false;
    RETURN_IF_ERROR(fault_point("snapshot.removed"));
    return blocking && count > 0 ? follow_removal(*state, goes_on) : nullptr;
}

void remember(const snapshot_state_t& state, errdesc_t* e) {
    if (!state.is_leftover())
        error_hash_save(translate_shadow_path(*state.vm_shadow_path, cnt_thr_namespaceroot()), e);
    _errdesc_log(e, ERRDESC_ERROR);
}

bool is_due(const snapshot_state_t& state, const snapshot_removal_t& removal) {
    const int max_idle = get_reg_settings()->snapshot_max_idle;
    const std::time_t age = removal.now - state.atime;
    if (state.ref > removal.max_ref || age < max_idle)
        return false;
    ts_dprintf(choice_level, "snapshot_state_remove_old: vmname = %s, ref = %jd, age = %ld, max_idle = %ld\n",
               state.vmname.c_str(), static_cast<std::intmax_t>(state.ref), static_cast<long>(age),
               static_cast<long>(max_idle));
    return true;
}

std::vector<snapshot_state_ptr> choose(snapshot_list_t* list, const snapshot_removal_t& removal) {
    std::vector<snapshot_state_ptr> chosen;
    list_iter(*list, [&](const snapshot_state_ptr& state) {
        snapshot_state_check(*state);
        state->atime = std::min(state->atime, removal.now);  // the clock may have been set back
        chosen.push_back(state);
        return true;
    });
    std::erase_if(chosen, [&](const snapshot_state_ptr& state) {
        return (!removal.is_last && snapshot_state_used_elsewhere(*list, state->hvname, state->vmuuid) != nullptr) ||
               !is_due(*state, removal);
    });
    return chosen;
}

// Whether the VM is no longer where its snapshot was taken, as the controller says. Should it come back, or stand
// elsewhere with the snapshot, the search for old ones finds that.
bool has_left(const snapshot_state_t& state) {
    const errdesc_keeper_t keeper;
    std::unique_ptr<ks_vm_config_t> vmc;
    if (errdesc_t* e = controller_get_vm(&vmc, state.vmuuid)) {
        _errdesc_log(e, ERRDESC_WARNING);
        return false;
    }
    return vmc == nullptr || (ks_is_set(vmc->hv_hostname) && *vmc->hv_hostname != state.hvname);
}

// Gives up a snapshot whose VM its hypervisor does not know any more, if that is so.
bool is_given_up(const snapshot_state_t& state, const errdesc_t& e) {
    if (e.number != EINVAL || !has_left(state))
        return false;
    ts_printf("WARNING: snapshot %s is given up: %s is no longer on %s\n", state.snapshotname.c_str(),
              state.vmname.c_str(), state.hvname.c_str());
    raise_snapshot_alert(state.hvname, state.vmname, nullptr, SNAPSHOT_REMOVE);
    return true;
}

// Tries until the snapshot is gone or there is no sense in going on. Whether it is gone.
bool try_to_destroy(snapshot_state_t* state, const snapshot_removal_t& removal) {
    const int limit = get_reg_settings()->snapshot_retry_limit;
    for (int attempt = 1;; attempt++) {
        errdesc_t* e = snapshot_state_destroy(state, removal.blocking, true, removal.goes_on);
        if (e == nullptr)
            return true;
        _errdesc_log(e, ERRDESC_INFO);
        if (!removal.is_last && is_given_up(*state, *e))
            return true;
        if (attempt >= limit)
            ts_printf("ERROR: failed to remove snapshot %s on %s (attempted for %d times)\n",
                      state->snapshotname.c_str(), state->vmname.c_str(), limit);
        if (attempt >= limit || e->number == EINVAL || removal.is_last)
            return false;
        if (!snapshot_pause(retry_pause, removal.goes_on))
            return false;
    }
}

}  // namespace

bool snapshot_pause(unsigned seconds, const std::function<bool()>& goes_on) {
    for (; seconds > 0 && goes_on(); seconds--)
        clock_sleep(1);
    return goes_on();
}

errdesc_t* snapshot_state_destroy(snapshot_state_t* state, bool blocking, bool alert,
                                  const std::function<bool()>& goes_on) {
    snapshot_state_check(*state);
    state->removal_begun = true;
    errdesc_t* e = state->snapshot_created ? remove_from_hypervisor(state, blocking, alert, goes_on) : nullptr;
    if (e != nullptr)
        remember(*state, e);
    state->lockfd.reset();
    return e;
}

errdesc_t* snapshot_state_destroy_waiting(snapshot_state_t* state, const std::function<bool()>& goes_on) {
    const int limit = get_reg_settings()->snapshot_retry_limit;
    for (int attempt = 1;; attempt++) {
        errdesc_t* e = snapshot_state_destroy(state, true, true, goes_on);
        if (e == nullptr || e->number != EALREADY || attempt >= limit)
            return e;
        const errdesc_keeper_t keeper;
        if (!snapshot_pause(retry_pause, goes_on))
            return e;
    }
}

void snapshot_state_remove_old(snapshot_list_t* list, const snapshot_removal_t& removal) {
    bool removed = false;
    for (const snapshot_state_ptr& state : choose(list, removal)) {
        snapshot_state_distrust_elsewhere(*list, state->hvname, state->vmuuid);
        if (!try_to_destroy(state.get(), removal))
            continue;
        cor_assert(list_delete(*list, state));
        removed = true;
    }
    if (removed)
        snapshot_state_dump(*list);
}

}  // namespace mirador
