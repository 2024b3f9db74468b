// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/cbt_vdisk.h"

#include <algorithm>
#include <atomic>
#include <optional>
#include <string_view>

#include "appliance/exporter/cbt_script.h"
#include "appliance/lib/corcbt.h"
#include "appliance/lib/registry.h"
#include "controller/lib/controller.h"
#include "controller/lib/controller_raw.h"
#include "controller/lib/json_records.h"
#include "lib/cor_string.h"
#include "lib/json_tools.h"
#include "lib/log.h"
#include "lib/thread_annotations.h"

namespace mirador {
namespace {

constexpr int post_tries = 2;
constexpr std::uint32_t full_percent = 100;

mutex_t _records_mutex;  // held from a record's fetch to its post

// A controller that does not answer while the daemon ends is not waited for at every disk: the next start resets all.
std::atomic<bool> _resets_given_up = false;

bool debugs() {
    return get_reg_settings()->cbt_debug_enabled;
}

errdesc_t* post(const ks_vdisk_t& vdisk) REQUIRES(_records_mutex) {
    const json_ptr record = ks_vdisk_to_json_object(&vdisk);
    errdesc_t* e = nullptr;
    for (int i = 1; i <= post_tries; i++) {
        if (debugs())
            ts_printf("update_cbt_vdisk try: %d\n", i);
        e = controller_post_json("vdisk", record.get());
        if (e == nullptr)
            return nullptr;
    }
    return e;
}

// What stands for a file that the controller has no record of.
ks_vdisk_t new_record(const std::string& vm_uuid, const std::string& vdisk_name) {
    ks_vdisk_t vdisk;
    vdisk.vhost_uuid = vm_uuid;
    vdisk.name = vdisk_name;
    vdisk.changeid = cbt_uninitialized;
    vdisk.corcbt_size_percentage = corcbt_default_size_percent;
    return vdisk;
}

void dump_reset(const ks_vdisk_t& vdisk) {
    if (!debugs())
        return;
    ts_printf("reset_cbt_vdisk: updating vdisk table with\n");
    json_debug_dump(ks_vdisk_to_json_object(&vdisk).get());
}

bool forget_incr(ks_vdisk_t* vdisk, bool /*is_new*/) {
    if (!cbt_has_changeid(vdisk->changeid_incr))
        return false;
    vdisk->changeid_incr = cbt_uninitialized;
    dump_reset(*vdisk);
    return true;
}

}  // namespace

bool cbt_has_changeid(const ks_string_t& changeid) {
    return ks_is_set(changeid) && *changeid != cbt_uninitialized;
}

errdesc_t* get_cbt_vdisk(const std::string& vm_uuid, const std::string& vdisk_name,
                         std::unique_ptr<ks_vdisk_t>* vdisk) {
    vdisk->reset();
    record_list_ptr<ks_vdisk_t> disks;
    RETURN_IF_ERROR(controller_get_corcbt_vdisks(vm_uuid, vdisk_name, &disks));
    if (std::optional<ks_vdisk_t> first = list_pop(*disks))
        *vdisk = std::make_unique<ks_vdisk_t>(std::move(*first));
    return nullptr;
}

errdesc_t* change_cbt_vdisk(const std::string& vm_uuid, const std::string& vdisk_name,
                            const cbt_vdisk_change_t& change) {
    const mutex_lock_t lock(_records_mutex);
    std::unique_ptr<ks_vdisk_t> vdisk;
    RETURN_IF_ERROR(get_cbt_vdisk(vm_uuid, vdisk_name, &vdisk));
    const bool is_new = vdisk == nullptr;
    if (is_new)
        vdisk = std::make_unique<ks_vdisk_t>(new_record(vm_uuid, vdisk_name));
    return change(vdisk.get(), is_new) ? post(*vdisk) : nullptr;
}

errdesc_t* update_cbt_vdisk(const std::string& vm_uuid, const std::string& vdisk_name, const std::string& changeid) {
    if (vdisk_name.empty() || changeid.empty()) {
        ts_printf("update_cbt_vdisk: invalid args received\n");
        return errdesc_set_str(ERR_INVALID_ARG, "update_cbt_vdisk");
    }
    return change_cbt_vdisk(vm_uuid, vdisk_name, [&](ks_vdisk_t* vdisk, bool) {
        if (vdisk->changeid == changeid)
            return false;
        vdisk->changeid_prev = vdisk->changeid;
        vdisk->changeid = changeid;
        return true;
    });
}

errdesc_t* raise_cbt_vdisk_percentage(const std::string& vm_uuid, const std::string& vdisk_name,
                                      std::uint32_t percent) {
    return change_cbt_vdisk(vm_uuid, vdisk_name, [&](ks_vdisk_t* vdisk, bool) {
        const std::uint32_t wanted = std::min(percent, full_percent);
        if (vdisk->corcbt_size_percentage >= wanted)
            return false;
        vdisk->corcbt_size_percentage = wanted;
        return true;
    });
}

void reset_cbt_vdisk(const std::string& vm_uuid, const std::string& vdisk_name, const ks_vdisk_t* vdisk) {
    if (vm_uuid.empty() || vdisk_name.empty()) {
        ts_printf("reset_cbt_vdisk: invalid args received\n");
        return;
    }
    if (_resets_given_up || (vdisk != nullptr && !cbt_has_changeid(vdisk->changeid_incr)))
        return;
    const errdesc_keeper_t keeper;
    if (errdesc_t* e = change_cbt_vdisk(vm_uuid, vdisk_name, forget_incr)) {
        _errdesc_log(e, ERRDESC_WARNING);
        _resets_given_up = cbt_hurries();
    }
}

void reset_cbt_vdisk_path(const std::string& vm_uuid, const std::string& path) {
    if (vm_uuid.empty() || path.empty()) {
        ts_printf("reset_cbt_vdisk_path: invalid args received\n");
        return;
    }
    const std::string_view vdisk_name = last_component(path);
    if (vdisk_name.empty())
        ts_printf("reset_cbt_vdisk_path: cannot find vdisk_name in %s\n", path.c_str());
    else
        reset_cbt_vdisk(vm_uuid, std::string(vdisk_name), nullptr);
}

}  // namespace mirador
