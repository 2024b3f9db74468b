// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/snapshot_alerts.h"

#include <memory>
#include <optional>
#include <utility>

#include "appliance/autodiscover/process_check.h"
#include "controller/lib/alertlib.h"
#include "controller/lib/controller.h"
#include "controller/lib/controller_raw.h"
#include "controller/lib/inventory_check.h"
#include "lib/cor_string.h"
#include "lib/json_tools.h"

namespace mirador {
namespace {

constexpr const char* severity = "warning";
constexpr const char* own_node = "";  // the controller's own

struct wording_t {
    const char* message;
    const char* alert_id;
    const char* word;
};
constexpr wording_t creation = {"Snapshot creation failed", "snapshot_create", "creation"};
constexpr wording_t removal = {"Snapshot removal failed", "snapshot_remove", "removal"};

errdesc_t* find_vm(const std::string& hv_name, const std::string& vm_name, ks_vm_config_t* vmc) {
    ks_hypervisor_config_t hvc;
    RETURN_IF_ERROR(controller_get_hypervisor(&hvc, hv_name));
    RETURN_IF_ERROR(ks_hypervisor_config_check(hvc));  // its name becomes part of a URL
    record_list_ptr<ks_vm_config_t> vms;
    RETURN_IF_ERROR(controller_get_vms(hvc, &vms));
    while (std::optional<ks_vm_config_t> vm = list_pop(*vms))
        if (vm->vm_name == vm_name && ks_is_set(vm->uuid)) {
            *vmc = std::move(*vm);
            return nullptr;
        }
    return errdesc_set_str(ERR_OBJ_NOT_FOUND, "Virtual machine not found");
}

// What is to change of the VM; null: nothing.
json_ptr vmconfig_body(const ks_vm_config_t& vmc, const std::string& message, vmconfig_mode_t mode, bool clear_suffix) {
    const bool clear_error = mode == VMCONFIG_SUCCESS && vmc.error == message;
    if (mode != VMCONFIG_ERROR && !clear_error && !clear_suffix)
        return nullptr;
    json_ptr body(json_object_new_object());
    json_add_string_field(body.get(), "uuid", vmc.uuid);
    if (mode == VMCONFIG_ERROR || clear_error)
        json_add_string_field(body.get(), "error_message", clear_error ? "" : message);
    if (clear_suffix)
        json_add_string_field(body.get(), "snap_suffix", "");
    return body;
}

// Of any node: what the controller made of a post without one is its own affair.
errdesc_t* clear_alert(const wording_t& wording, const std::string& object_id) {
    std::unique_ptr<list_t<json_ptr>> alerts;
    RETURN_IF_ERROR(alert_get(wording.alert_id, object_id, std::nullopt, &alerts));
    return list_empty(*alerts) ? nullptr : alert_clear(wording.alert_id, object_id, own_node);
}

void log_failure(errdesc_t* e) {
    if (e != nullptr)
        _errdesc_log(e, ERRDESC_WARNING);
}

}  // namespace

errdesc_t* update_vmconfig(const std::string& hv_name, const std::string& vm_name, const std::string& message,
                           vmconfig_mode_t mode, bool clear_suffix) {
    ks_vm_config_t vmc;
    RETURN_IF_ERROR(find_vm(hv_name, vm_name, &vmc));
    const json_ptr body = vmconfig_body(vmc, message, mode, clear_suffix);
    return body == nullptr ? nullptr : controller_post_json("vmconfig", body.get());
}

void raise_snapshot_alert(const std::string& hv_name, const std::string& vm_name, const errdesc_t* err,
                          snapshot_action_t action) {
    const errdesc_keeper_t keeper;
    if (!corcontroller_is_running())
        return;
    const wording_t& wording = action == SNAPSHOT_CREATE ? creation : removal;
    const std::string object_id = cor_format("%s:%s", hv_name.c_str(), vm_name.c_str());
    if (err == nullptr) {
        log_failure(update_vmconfig(hv_name, vm_name, wording.message, VMCONFIG_SUCCESS, action == SNAPSHOT_REMOVE));
        log_failure(clear_alert(wording, object_id));
        return;
    }
    const std::string text = cor_format("Snapshot %s failed for virtual machine '%s' on server '%s'.", wording.word,
                                        vm_name.c_str(), hv_name.c_str());
    log_failure(update_vmconfig(hv_name, vm_name, wording.message, VMCONFIG_ERROR, false));
    log_failure(alert_post(wording.alert_id, object_id, own_node, severity, hv_name, vm_name, text, true));
}

}  // namespace mirador
