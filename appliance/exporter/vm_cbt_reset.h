// SPDX-License-Identifier: Apache-2.0
// The controller's request to start changed-block tracking of a VM anew, and its end.
#pragma once

#include "appliance/exporter/vm_state.h"
#include "controller/lib/kestrel_types.h"

namespace mirador {

// Tells the controller that its request has been met, if it still stands, and drops it here. Failures are logged.
void clear_cbt_reset_pending(vm_state_t* vm, const ks_vm_config_t& vmc);

}  // namespace mirador
