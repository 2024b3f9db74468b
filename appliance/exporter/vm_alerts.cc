// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/vm_alerts.h"

#include <cerrno>

#include "appliance/lib/registry.h"
#include "controller/lib/managed_alert.h"
#include "lib/cor_string.h"
#include "lib/log.h"

namespace mirador {
namespace {

constexpr const char* severity = "warning";
constexpr int missing_file_grace = 300;  // seconds: a VM on the move misses files for a while

const std::string& node_uuid() {
    return get_reg_settings()->names().appliance_uuid;
}

std::string object_of(const ks_string_t& first, const std::string& second) {
    return ks_text(first) + ':' + second;
}

}  // namespace

void raise_vm_discovery_alert(const errdesc_t* e, const ks_vm_config_t& vmc) {
    const errdesc_keeper_t keeper;
    const std::string object_id = object_of(vmc.hv_hostname, ks_text(vmc.vm_name));
    if (e == nullptr) {
        if (managed_alert_clear("vm_discovery", object_id, node_uuid(), vmc) != nullptr)
            ts_printf("raise_vm_discovery_alert: Failed to clear alert\n");
        return;
    }
    const std::string text = cor_format("Discovery of virtual machine '%s' failed (%s).", object_id.c_str(), e->string);
    const int grace = e->number == ENOENT ? missing_file_grace : 0;
    if (errdesc_t* failure = managed_alert_post("vm_discovery", object_id, node_uuid(), severity, text, vmc, grace))
        ts_printf("raise_vm_discovery_alert: Failed to post alert: %s\n", failure->string);
}

void post_independent_disk_alert(const ks_vm_config_t& vmc, const std::string& disk_name, bool independent) {
    const errdesc_keeper_t keeper;
    const std::string object_id = object_of(vmc.uuid, disk_name);
    if (!independent) {
        if (managed_alert_clear("independent_disk", object_id, node_uuid(), vmc) != nullptr)
            ts_printf("Failed to clear alert %s\n", object_id.c_str());
        return;
    }
    const std::string text = cor_format("Disk '%s' on '%s' does not support snapshot and will not be exported.",
                                        disk_name.c_str(), ks_text(vmc.vm_name).c_str());
    if (errdesc_t* failure = managed_alert_post("independent_disk", object_id, node_uuid(), severity, text, vmc, 0))
        ts_printf("Failed to alert user: %s\n", failure->string);
}

void post_in_use_alert(const ks_vm_config_t& vmc, const std::string& vm_path) {
    const errdesc_keeper_t keeper;
    const std::string text = cor_format(
        "Cannot remove %s (hypervisor: %s) from the namespace because there are "
        "application(s) accessing the VM %s.\n",
        vm_path.c_str(), ks_text(vmc.hv_hostname).c_str(), ks_text(vmc.vm_name).c_str());
    if (errdesc_t* failure = managed_alert_post(in_use_alert, vm_path, node_uuid(), severity, text, vmc, 0))
        ts_printf("vm_stop_old: Failed to alert user: %s\n", failure->string);
}

void clear_in_use_alert(const ks_vm_config_t& vmc, const std::string& vm_path) {
    const errdesc_keeper_t keeper;
    if (managed_alert_clear(in_use_alert, vm_path, node_uuid(), vmc) != nullptr)
        ts_printf("Failed to clear alert %s\n", vm_path.c_str());
}

void raise_unexpected_changeid_alert(const ks_vm_config_t& vmc, const std::string& disk_name) {
    const errdesc_keeper_t keeper;
    const std::string& host = ks_text(vmc.hv_hostname);
    const std::string text =
        cor_format("Unexpected Changed Block Tracking changeid for %s on VM %s (hypervisor: %s).\n", disk_name.c_str(),
                   ks_text(vmc.vm_name).c_str(), host.c_str());
    if (errdesc_t* failure = managed_alert_post("unexpected_changeid", object_of(vmc.vm_name, host), node_uuid(),
                                                severity, text, vmc, 0))
        ts_printf("check_cbt_changeid: Failed to alert user: %s\n", failure->string);
}

errdesc_t* clear_unexpected_changeid_alert(const ks_vm_config_t& vmc) {
    return managed_alert_clear("unexpected_changeid", object_of(vmc.vm_name, ks_text(vmc.hv_hostname)), node_uuid(),
                               vmc);
}

}  // namespace mirador
