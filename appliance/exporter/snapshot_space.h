// SPDX-License-Identifier: Apache-2.0
// A look at the datastore before a snapshot is taken: what the VM writes from then on takes room there.
#pragma once

#include "controller/lib/kestrel_types.h"

namespace mirador {

// Raises the alert "snapshot_space" about the VM when the datastore of its files has less than 1 GiB or less than 1 %
// of its capacity free, clears it when it has more. Nothing when the agent cannot tell. The calling thread's error
// descriptor is afterwards what it was.
void snapshot_check_space(const ks_hypervisor_config_t& hvc, const ks_vm_config_t& vmc);

}  // namespace mirador
