// SPDX-License-Identifier: Apache-2.0
#include <optional>

#include "appliance/autodiscover/process_check.h"
#include "appliance/exporter/cbt_vdisk.h"
#include "appliance/exporter/crash.h"
#include "controller/lib/controller.h"
#include "controller/lib/controller_raw.h"
#include "controller/lib/inventory_check.h"
#include "lib/json_tools.h"

namespace mirador {
namespace {

void reset_suffix(const ks_vm_config_t& vmc) {
    const json_ptr request(json_object_new_object());
    json_add_string_field(request.get(), "uuid", vmc.uuid);
    json_add_string_field(request.get(), "snap_suffix", "");
    (void)controller_post_json("vmconfig", request.get());  // tried once; the next start tries again
}

void reset_suffixes(const ks_hypervisor_config_t& hvc) {
    record_list_ptr<ks_vm_config_t> vms;
    if (ks_hypervisor_config_check(hvc) != nullptr || controller_get_vms(hvc, &vms) != nullptr)
        return;
    while (const std::optional<ks_vm_config_t> vmc = list_pop(*vms))
        if (ks_is_set(vmc->snap_suffix) && ks_is_set(vmc->uuid))
            reset_suffix(*vmc);
}

}  // namespace

void crash_recover_reset_cbt_vdisk() {
    record_list_ptr<ks_vdisk_t> disks;
    if (controller_get_corcbt_vdisks(std::nullopt, std::nullopt, &disks) != nullptr)
        return;
    while (const std::optional<ks_vdisk_t> vdisk = list_pop(*disks))
        reset_cbt_vdisk(ks_text(vdisk->vhost_uuid), ks_text(vdisk->name), &*vdisk);
}

void crash_recover_reset_snap_suffix() {
    record_list_ptr<ks_hypervisor_config_t> hypervisors;
    if (!corcontroller_is_running() || controller_get_hypervisors(&hypervisors) != nullptr)
        return;
    while (const std::optional<ks_hypervisor_config_t> hvc = list_pop(*hypervisors))
        reset_suffixes(*hvc);
}

}  // namespace mirador
