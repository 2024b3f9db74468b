// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/cbt_changeid.h"

#include <memory>
#include <string_view>

#include "appliance/exporter/cbt_results.h"
#include "appliance/exporter/cbt_script.h"
#include "appliance/exporter/cbt_vdisk.h"
#include "appliance/exporter/vm_alerts.h"
#include "appliance/exporter/vm_state.h"
#include "appliance/lib/devmap.h"
#include "appliance/lib/registry.h"
#include "controller/lib/controller_raw.h"
#include "lib/cor_string.h"
#include "lib/json_tools.h"
#include "lib/log.h"

namespace mirador {
namespace {

constexpr std::uint32_t reset_wanted = 1;  // as a VM's `cbt_reset_time`: tracking must start anew

bool debugs() {
    return get_reg_settings()->cbt_debug_enabled;
}

// The part of a change id that all ids of one tracking share.
std::string_view tracking_of(std::string_view changeid) {
    return changeid.substr(0, changeid.rfind('/'));
}

bool is_expected(const ks_string_t& expected, std::string_view received) {
    if (!cbt_has_changeid(expected) || *expected == received)
        return true;
    if (!received.empty() && *expected == received.substr(0, received.size() - 1))
        return true;
    return tracking_of(*expected) == tracking_of(received);
}

errdesc_t* post_reset_wanted(const std::string& vm_uuid) {
    const json_ptr request(json_object_new_object());
    json_add_string_field(request.get(), "uuid", vm_uuid);
    json_add_int_field(request.get(), "cbt_reset_time", static_cast<std::int32_t>(reset_wanted));
    return controller_post_json("vmconfig", request.get());
}

void report_unexpected(const std::string& vm_uuid, const std::string& disk_name, const ks_vm_config_t& vmc) {
    if (vmc.cbt_reset_time == reset_wanted)
        return;
    if (errdesc_t* e = post_reset_wanted(vm_uuid))
        _errdesc_log(e, ERRDESC_WARNING);
    else
        raise_unexpected_changeid_alert(vmc, disk_name);
}

// Whether the VM of an exported disk uses tracking. A VM that nobody listed uses none.
bool is_tracked(const std::string& shadow_path) {
    const vm_state_ref_t state = vm_state_get(shadow_path.substr(0, shadow_path.rfind('/')));
    if (!state)
        return false;
    const vm_state_t& vm = *state;
    const read_lock_t lock(vm.vmc_rwlock);
    return vm.vmc.use_cbt;
}

errdesc_t* read_changeid(const std::string& results_path, std::string* changeid) {
    cbt_extent_list_t none;
    errdesc_t* e = cbt_process_list(results_path, true, &none, changeid);
    if (e != nullptr)
        ts_printf("get_cbt_changeid error from cbt_process_list\n");
    return e;
}

// What the script's failure means for the copy of a flat disk.
errdesc_t* judge_script(errdesc_t* e, const vm_proxy_header_t& header) {
    if (e->number == cbt_no_changeid)
        return nullptr;
    ts_printf("get_cbt_changeid error from cbt_get_block_list\n");
    if (e->number != cbt_needs_reset)
        return e;
    const errdesc_keeper_t keeper;
    if (errdesc_t* failure = post_cbt_reset_event(header.vm_uuid))
        _errdesc_log(failure, ERRDESC_WARNING);
    return e;
}

// Asks for the disk's present change id; empty when it has none.
errdesc_t* ask_changeid(const vm_proxy_header_t& header, const ks_vdisk_t* vdisk, std::string* changeid) {
    cbt_request_t request{.hv_name = header.hv_name,
                          .vm_uuid = header.vm_uuid,
                          .vmdk_path = header.path,
                          .dm_name = {},
                          .changeid_only = true,
                          .size = header.statb.size,
                          .vdisk = vdisk};
    dm_mk_unique_name("cbt", &request.dm_name);
    std::string results_path;
    errdesc_t* e = cbt_get_block_list(request, &results_path);
    e = e == nullptr ? read_changeid(results_path, changeid) : judge_script(e, header);
    cbt_remove_work_file(results_path);
    return e;
}

// Makes the change id the base of the changed-block files to come, which must belong to its tracking, unless there is a
// base by now: then that is it.
errdesc_t* note_base(const std::string& vm_uuid, const std::string& vdisk_name, std::string* changeid) {
    return change_cbt_vdisk(vm_uuid, vdisk_name, [changeid](ks_vdisk_t* vdisk, bool) {
        if (cbt_has_changeid(vdisk->changeid_base)) {
            *changeid = *vdisk->changeid_base;
            return false;
        }
        if (debugs())
            ts_printf("get_cbt_changeid updating vdisk with: %s\n", changeid->c_str());
        vdisk->changeid_base = *changeid;
        if (!cbt_has_changeid(vdisk->changeid) || !is_expected(vdisk->changeid, *changeid))
            vdisk->changeid = *changeid;
        return true;
    });
}

}  // namespace

errdesc_t* check_cbt_changeid(const std::string& vm_uuid, const std::string& disk_name, const std::string& received,
                              const ks_vdisk_t* vdisk, const ks_vm_config_t& vmc, bool err_no_changeid) {
    const ks_string_t expected = vdisk == nullptr ? std::nullopt : vdisk->changeid;
    if (!err_no_changeid && is_expected(expected, received))
        return nullptr;
    if (debugs())
        ts_printf("check_cbt_changeid: expected %s, received %s, VM %s, disk %s\n", ks_text(expected).c_str(),
                  received.c_str(), vm_uuid.c_str(), disk_name.c_str());
    report_unexpected(vm_uuid, disk_name, vmc);
    return errdesc_set_str(ERR_UNMATCHED, "Unexpected new changeid");
}

errdesc_t* post_cbt_reset_event(const std::string& vm_uuid) {
    const json_ptr event(json_object_new_object());
    json_object* args = json_object_new_object();
    json_add_string_field(args, "uuid", vm_uuid);
    json_add_string_field(event.get(), "event_name", "reset_cbt");
    json_object_object_add(event.get(), "args", args);
    return controller_post_json("event", event.get());
}

errdesc_t* get_cbt_changeid(const vm_proxy_cookie_t& cookie, std::string* changeid) {
    changeid->clear();
    if (!is_tracked(cookie.shadow_path))
        return nullptr;
    std::string vdisk_name;
    if (flat_to_corcbt(std::string(last_component(cookie.path)), &vdisk_name) != nullptr) {
        ts_printf("get_cbt_changeid: cannot find vdisk_name in path %s\n", cookie.path.c_str());
        return nullptr;
    }
    const std::string vm_uuid = cookie.header.vm_uuid;
    std::unique_ptr<ks_vdisk_t> vdisk;
    RETURN_IF_ERROR(get_cbt_vdisk(vm_uuid, vdisk_name, &vdisk));
    if (vdisk != nullptr && cbt_has_changeid(vdisk->changeid_base)) {
        *changeid = *vdisk->changeid_base;
        if (debugs())
            ts_printf("get_cbt_changeid returning changeid_base: %s\n", changeid->c_str());
        return nullptr;
    }
    RETURN_IF_ERROR(ask_changeid(cookie.header, vdisk.get(), changeid));
    return vdisk == nullptr || changeid->empty() ? nullptr : note_base(vm_uuid, vdisk_name, changeid);
}

}  // namespace mirador
