// SPDX-License-Identifier: Apache-2.0
// What the controller is told of snapshots that fail and succeed again: the VM's error text and an alert. Requests to
// the controller, without locks; any thread may call.
#pragma once

#include <string>

#include "appliance/lib/snapshot.h"
#include "lib/errdesc.h"

namespace mirador {

// What is told of a VM.
enum vmconfig_mode_t : int {
    VMCONFIG_ERROR = 0,    // the message is the VM's error text
    VMCONFIG_SUCCESS = 1,  // it no longer is; another one stays
};

// Tells the controller, and with `clear_suffix` empties the VM's snapshot suffix too. Where that changes nothing,
// nothing is sent. Errors: the controller's (controller/lib/controller.h); ERR_OBJ_NOT_FOUND "Virtual machine not
// found" when the hypervisor has no VM of that name.
[[nodiscard]] errdesc_t* update_vmconfig(const std::string& hv_name, const std::string& vm_name,
                                         const std::string& message, vmconfig_mode_t mode, bool clear_suffix);

// Tells how taking a snapshot (SNAPSHOT_CREATE) or removing one (any other action) went: with `err`, sets the VM's
// error text and raises the alert; without (null: success), takes both back. Nothing while the controller is not
// running. What cannot be told is logged at level 4; the calling thread's error descriptor is afterwards what it was.
void raise_snapshot_alert(const std::string& hv_name, const std::string& vm_name, const errdesc_t* err,
                          snapshot_action_t action);

}  // namespace mirador
