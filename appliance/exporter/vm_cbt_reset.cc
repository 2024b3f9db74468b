// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/vm_cbt_reset.h"

#include <memory>

#include "appliance/exporter/vm_alerts.h"
#include "controller/lib/controller.h"
#include "controller/lib/controller_raw.h"
#include "lib/json_tools.h"
#include "lib/log.h"

namespace mirador {
namespace {

void drop_flag(vm_state_t* vm) {
    const write_lock_t lock(vm->vmc_rwlock);
    vm->vmc.cbt_reset_pending = false;
}

errdesc_t* post_reset_done(const ks_vm_config_t& vmc) {
    const json_ptr request(json_object_new_object());
    json_add_string_field(request.get(), "uuid", ks_text(vmc.uuid));
    json_add_int_field(request.get(), "cbt_reset_pending", 0);
    return controller_post_json("vmconfig", request.get());
}

}  // namespace

void clear_cbt_reset_pending(vm_state_t* vm, const ks_vm_config_t& vmc) {
    std::unique_ptr<ks_vm_config_t> current;
    errdesc_t* e = controller_get_vm(&current, ks_text(vmc.uuid));
    if (e != nullptr || current == nullptr) {
        if (e != nullptr)
            _errdesc_print(e, ERRDESC_ERROR);
        ts_printf("clear_cbt_reset: err or null\n");
        return;
    }
    if (current->cbt_reset_pending) {
        if (errdesc_t* failure = post_reset_done(vmc)) {
            _errdesc_print(failure, ERRDESC_ERROR);
            ts_printf("clear_cbt_reset: failed to update vm_config table\n");
            return;
        }
        ts_printf("Changed Block Tracking reset/enabled for VM '%s' on hypervisor '%s'\n", ks_text(vmc.vm_name).c_str(),
                  ks_text(vmc.hv_hostname).c_str());
        if (clear_unexpected_changeid_alert(vmc) != nullptr)
            ts_printf("clear_cbt_reset: failed to clear alert\n");
    }
    drop_flag(vm);
}

}  // namespace mirador
