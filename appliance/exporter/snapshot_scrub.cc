// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/snapshot_scrub.h"

#include <algorithm>
#include <cerrno>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "appliance/lib/registry.h"
#include "controller/lib/controller.h"
#include "controller/lib/managed_alert.h"
#include "lib/cor_string.h"
#include "lib/log.h"

namespace mirador {
namespace {

constexpr const char* old_severity = "notice";

const reg_names_t& names() {
    return get_reg_settings()->names();
}

errdesc_t* check_identity() {
    std::string unused;
    return snapshot_name_make(names().vendor_id, names().master_uuid, std::nullopt, &unused);
}

// Whether the controller has the snapshot's VM. *saw_all, if given, becomes false where it does not tell.
bool controller_knows(const snapshotdesc_t& desc, bool* saw_all) {
    std::unique_ptr<ks_vm_config_t> vmc;
    if (errdesc_t* e = controller_get_vm(&vmc, desc.vmuuid)) {
        _errdesc_log(e, ERRDESC_WARNING);
        if (saw_all != nullptr)
            *saw_all = false;
        return false;
    }
    return vmc != nullptr;
}

// Calls `visit` for every snapshot of the hypervisors whose name the agents find to match. *saw_all: each could be
// asked.
errdesc_t* for_each_snapshot(const std::string& pattern, bool* saw_all,
                             const std::function<void(const ks_hypervisor_config_t&, const snapshotdesc_t&)>& visit) {
    record_list_ptr<ks_hypervisor_config_t> hypervisors;
    RETURN_IF_ERROR(controller_get_hypervisors(&hypervisors));
    *saw_all = true;
    while (const std::optional<ks_hypervisor_config_t> hvc = list_pop(*hypervisors)) {
        std::vector<snapshotdesc_t> found;
        if (errdesc_t* e = snapshot_list(*hvc, ESX_HYPERVISOR, pattern, &found)) {
            _errdesc_log(e, ERRDESC_WARNING);
            *saw_all = false;
            continue;
        }
        for (const snapshotdesc_t& desc : found)
            visit(*hvc, desc);
    }
    return nullptr;
}

// Enters a listed snapshot as one to be removed.
void snapshot_state_leftover_removal(snapshot_list_t* list, const ks_hypervisor_config_t& hvc,
                                     const snapshotdesc_t& desc) {
    auto state = std::make_shared<snapshot_state_t>();
    state->hvname = ks_text(hvc.hostname);
    state->vmname = desc.vmname;
    state->vmuuid = desc.vmuuid;
    state->snapshotname = desc.snapshotname;
    state->ctime = desc.ctime;
    state->quiesce = desc.quiesce;
    state->snapshot_created = true;
    state->hypervisor = hvc;
    list_add(*list, std::move(state));
}

// Whether the list has this snapshot, or has one of its VM in use: to remove another one below that has to wait.
bool is_held(const snapshot_list_t& list, const std::string& hv_name, const snapshotdesc_t& desc) {
    if (snapshot_state_used_elsewhere(list, hv_name, desc.vmuuid) != nullptr)
        return true;
    return list_contains(list, [&](const snapshot_state_ptr& state) {
        const bool same_vm = state->hvname == hv_name && state->vmuuid == desc.vmuuid;
        return same_vm && (!state->is_leftover() || state->snapshotname == desc.snapshotname) ? 0 : 1;
    });
}

std::string age_text(const std::string& hv_name, const snapshotdesc_t& desc, std::time_t now) {
    constexpr std::time_t hour = 3600;
    constexpr std::time_t day = 24 * hour;
    const std::time_t age = now - desc.ctime;
    const bool in_days = age >= day;
    return cor_format("'%s' on hypervisor '%s' has snapshot '%s' created over %d %s ago", desc.vmname.c_str(),
                      hv_name.c_str(), desc.snapshotname.c_str(), static_cast<int>(age / (in_days ? day : hour)),
                      in_days ? "days" : "hours");
}

void report_old(const std::string& hv_name, const snapshotdesc_t& desc, std::time_t now) {
    const std::string text = age_text(hv_name, desc, now);
    ts_printf("%s\n", text.c_str());
    ks_vm_config_t vm;
    vm.hv_hostname = hv_name;
    vm.vm_name = desc.vmname;
    vm.uuid = desc.vmuuid;
    if (errdesc_t* e =
            managed_alert_post(old_snapshot_alert, desc.vmuuid, names().appliance_uuid, old_severity, text, vm, 0))
        _errdesc_log(e, ERRDESC_WARNING);
}

void scrub_one(snapshot_list_t* list, const ks_hypervisor_config_t& hvc, const snapshotdesc_t& desc, std::time_t now) {
    const std::string hv_name = ks_text(hvc.hostname);
    if (!snapshot_name_is_vendors(desc.snapshotname, names().vendor_id))
        return;
    const bool ours = snapshot_name_is_ours(desc.snapshotname, names().vendor_id, names().master_uuid);
    if (ours && !is_held(*list, hv_name, desc) && controller_knows(desc, nullptr))
        snapshot_state_leftover_removal(list, hvc, desc);
    else if (desc.ctime < now - get_reg_settings()->snapshot_max_life)
        report_old(hv_name, desc, now);
}

}  // namespace

errdesc_t* snapshot_state_find_leftover(snapshot_list_t* list, bool* saw_all) {
    *saw_all = false;
    RETURN_IF_ERROR(check_identity());
    const std::string pattern = snapshot_name_pattern(names().vendor_id, names().master_uuid);
    return for_each_snapshot(pattern, saw_all,
                             [list, saw_all](const ks_hypervisor_config_t& hvc, const snapshotdesc_t& desc) {
                                 if (snapshot_name_is_ours(desc.snapshotname, names().vendor_id, names().master_uuid) &&
                                     !is_held(*list, ks_text(hvc.hostname), desc) && controller_knows(desc, saw_all))
                                     snapshot_state_leftover_removal(list, hvc, desc);
                             });
}

errdesc_t* snapshot_scrub(snapshot_list_t* list, std::time_t now, bool* had_identity) {
    bool saw_all = false;
    *had_identity = false;
    RETURN_IF_ERROR(check_identity());
    *had_identity = true;
    RETURN_IF_ERROR(for_each_snapshot(
        snapshot_name_pattern(names().vendor_id), &saw_all,
        [&](const ks_hypervisor_config_t& hvc, const snapshotdesc_t& desc) { scrub_one(list, hvc, desc, now); }));
    return managed_alert_clear_old(names().appliance_uuid, old_snapshot_alert, now);
}

errdesc_t* snapshot_remove_named(const std::string& hv_name, const std::string& vm_uuid,
                                 const std::string& snapshot_name) {
    RETURN_IF_ERROR(check_identity());
    ks_hypervisor_config_t hvc;
    RETURN_IF_ERROR(controller_get_hypervisor(&hvc, hv_name));
    std::vector<snapshotdesc_t> found;
    RETURN_IF_ERROR(snapshot_list(hvc, ESX_HYPERVISOR, ".*", &found));
    const auto named = std::ranges::find_if(found, [&](const snapshotdesc_t& desc) {
        return desc.vmuuid == vm_uuid && desc.snapshotname == snapshot_name;
    });
    if (named == found.end())
        return errdesc_set_fmt(ENOENT, "Snapshot '%s' not found.", snapshot_name.c_str());
    if (!snapshot_name_is_vendors(snapshot_name, names().vendor_id))
        return errdesc_set_fmt(ERR_INSUFFICIENT_PERMS, "Snapshot '%s' was not made by %s and is not removed.",
                               snapshot_name.c_str(), names().vendor_id.c_str());
    snapshot_state_t state;
    state.hvname = hv_name;
    state.vmname = named->vmname;
    state.vmuuid = vm_uuid;
    state.snapshotname = snapshot_name;
    ts_printf("Removing snapshot %s on %s %s\n", snapshot_name.c_str(), state.vmname.c_str(), hv_name.c_str());
    return snapshot_remove(snapshot_state_desc(state, hvc, true), nullptr);
}

}  // namespace mirador
