// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/cnt_cycle.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "appliance/exporter/hv_thr.h"
#include "appliance/exporter/snapshot_scrub.h"
#include "appliance/exporter/vm_alerts.h"
#include "appliance/exporter/vm_state.h"
#include "appliance/lib/registry.h"
#include "controller/lib/controller.h"
#include "controller/lib/inventory_check.h"
#include "controller/lib/managed_alert.h"
#include "lib/clock.h"
#include "lib/log.h"

namespace mirador {
namespace {

constexpr int dump_debug_level = 3;  // above it records are dumped

struct counts_t {
    int hypervisors = 0;
    int vms = 0;
    int enabled = 0;
    int updated = 0;
    int failed = 0;
};

// What the controller lists in a cycle.
struct listed_t {
    using registration_t = std::pair<std::string, std::string>;        // hypervisor and name
    std::unordered_set<std::string> hypervisors;                       // whose VMs could be had
    std::unordered_map<std::string, std::vector<registration_t>> vms;  // by uuid: two hypervisors may list one

    void add(const ks_vm_config_t& vmc) {
        vms[ks_text(vmc.uuid)].emplace_back(ks_text(vmc.hv_hostname), ks_text(vmc.vm_name));
    }

    bool has(const ks_string_t& uuid, const ks_string_t& hv_name, const ks_string_t& vm_name) const {
        const auto vm = vms.find(ks_text(uuid));
        const registration_t own(ks_text(hv_name), ks_text(vm_name));
        return vm != vms.end() && std::ranges::find(vm->second, own) != vm->second.end();
    }

    // Whether an alert is about a VM that is not listed any more, or not under the name and hypervisor that it had.
    // Those about old snapshots come from what the hypervisor lists, and go when it no longer does; that about a VM
    // which is kept though it is not listed goes with it.
    bool outlived(const managed_alert_t& alert) const {
        if (!ks_is_set(alert.vm_uuid) || alert.alert_id == old_snapshot_alert || alert.alert_id == in_use_alert)
            return false;
        if (!vms.contains(*alert.vm_uuid))
            return hypervisors.contains(ks_text(alert.hv_name));
        return !has(alert.vm_uuid, alert.hv_name, alert.vm_name);
    }
};

bool is_exported(const ks_vm_config_t& vmc) {
    return vmc.export_enabled && vmc.controller_export_enabled && ks_is_set(vmc.vm_name);
}

// Those of a VM without a uuid cannot be told from another's.
void clear_alerts(const ks_vm_config_t& vmc) {
    if (!ks_is_set(vmc.uuid))
        return;
    if (errdesc_t* e = managed_alert_clear_vm(ks_text(vmc.uuid), get_reg_settings()->names().appliance_uuid))
        _errdesc_log(e, ERRDESC_INFO);
}

// True when the VM was busy and must be tried again.
bool update_vm(const ks_vm_config_t& vmc, const ks_hypervisor_config_t& hvc, const cnt_cycle_t& cycle,
               counts_t* counts) {
    if (!is_exported(vmc)) {
        counts->vms++;
        clear_alerts(vmc);
        return false;
    }
    bool updated = false;
    errdesc_t* e = vm_state_update(vmc, hvc, cycle.root, cycle.gen, &updated);
    if (e != nullptr) {
        _errdesc_log(e, ERRDESC_INFO);
        if (e->number == ETIMEDOUT)
            return true;
    }
    counts->vms++;
    counts->failed += e != nullptr ? 1 : 0;
    counts->enabled += e == nullptr ? 1 : 0;
    counts->updated += updated ? 1 : 0;
    return false;
}

void update_vms(const ks_hypervisor_config_t& hvc, const cnt_cycle_t& cycle, counts_t* counts, listed_t* listed) {
    record_list_ptr<ks_vm_config_t> vms;
    if (errdesc_t* e = controller_get_vms(hvc, &vms)) {
        _errdesc_log(e, ERRDESC_INFO);
        return;
    }
    listed->hypervisors.insert(ks_text(hvc.hostname));
    list_iter(*vms, [listed](const ks_vm_config_t& vmc) {
        listed->add(vmc);
        return true;
    });
    while (cycle.goes_on()) {
        std::optional<ks_vm_config_t> vmc = list_pop(*vms);
        if (!vmc)
            return;
        if (update_vm(*vmc, hvc, cycle, counts))
            list_add(*vms, std::move(*vmc));
    }
}

void update_hypervisor(const ks_hypervisor_config_t& hvc, const cnt_cycle_t& cycle, counts_t* counts,
                       listed_t* listed) {
    if (errdesc_t* e = ks_hypervisor_config_check(hvc)) {  // its name becomes part of URLs and paths
        _errdesc_log(e, ERRDESC_INFO);
        return;
    }
    update_vms(hvc, cycle, counts, listed);
    if (errdesc_t* e = hv_thr_update(hvc, cycle.gen, cycle.root))
        _errdesc_log(e, ERRDESC_INFO);
    else
        counts->hypervisors++;
    if (get_debug_level() > dump_debug_level)
        ks_hypervisor_config_dump(&hvc);
}

// A VM that could not be exported has no record whose end would clear its alerts.
void clear_outlived_alerts(const listed_t& listed) {
    const auto outlived = [&listed](const managed_alert_t& alert) { return listed.outlived(alert); };
    if (errdesc_t* e = managed_alert_clear_if(get_reg_settings()->names().appliance_uuid, outlived))
        _errdesc_log(e, ERRDESC_INFO);
}

// The folders that users defined; none when they cannot be had.
std::optional<std::vector<ks_vm_folder_t>> fetch_folders() {
    record_list_ptr<ks_vm_folder_t> list;
    if (errdesc_t* e = controller_get_user_defined_folders(&list)) {
        _errdesc_log(e, ERRDESC_NOTICE);
        return std::nullopt;
    }
    std::vector<ks_vm_folder_t> folders;
    while (std::optional<ks_vm_folder_t> folder = list_pop(*list))
        folders.push_back(std::move(*folder));
    return folders;
}

void log_counts(const counts_t& counts, std::time_t start, std::uint64_t gen) {
    ts_printf("cnt_thr: refreshed %d HV %d VM (%d enabled, %d updated, %d failed) in %ld seconds (gen %jd)\n",
              counts.hypervisors, counts.vms, counts.enabled, counts.updated, counts.failed,
              static_cast<long>(clock_now() - start), static_cast<std::intmax_t>(gen));
}

}  // namespace

bool cnt_cycle_run(const cnt_cycle_t& cycle, user_folders_t* folders) {
    const std::time_t start = clock_now();
    std::optional<std::vector<ks_vm_folder_t>> cur_folders = fetch_folders();
    record_list_ptr<ks_hypervisor_config_t> hypervisors;
    if (errdesc_t* e = controller_get_hypervisors(&hypervisors)) {
        _errdesc_log(e, ERRDESC_NOTICE);
        hv_thr_stop_old(cycle.gen);
        return false;
    }
    folders->process_user_defined_folders(cycle.root, std::move(cur_folders));
    counts_t counts;
    listed_t listed;
    while (cycle.goes_on()) {
        const std::optional<ks_hypervisor_config_t> hvc = list_pop(*hypervisors);
        if (!hvc)
            break;
        update_hypervisor(*hvc, cycle, &counts, &listed);
    }
    if (!cycle.goes_on())
        return false;
    vm_stop_old(cycle.gen,
                [&](const ks_vm_config_t& vmc) { return listed.has(vmc.uuid, vmc.hv_hostname, vmc.vm_name); });
    clear_outlived_alerts(listed);
    folders->remove_old_user_defined_folders(cycle.root);
    if (get_debug_level() > dump_debug_level)
        folders->dump();
    hv_thr_stop_old(cycle.gen);
    log_counts(counts, start, cycle.gen);
    return true;
}

}  // namespace mirador
