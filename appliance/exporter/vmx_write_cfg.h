// SPDX-License-Identifier: Apache-2.0
// The exported configuration file of a VM: what it is called, where it came from, which disks it has.
#pragma once

#include "appliance/exporter/vd_state.h"
#include "appliance/exporter/vm_paths.h"
#include "controller/lib/kestrel_types.h"
#include "lib/errdesc.h"

namespace mirador {

// Writes the file anew into the cache, aside and renamed into place, with the times of the cached VMX file. The disks
// are those of the list, at most as many as the file has slots for. Errors: EINVAL for more disks; cfg_print's; errno
// with "Cannot open %s for writing", or with the path. Asserted: each disk's base descriptor is a datastore path.
[[nodiscard]] errdesc_t* vmx_write_cfg(const ks_vm_config_t& vmc, const vm_paths_t& paths, const vd_list_t& vd_list);

}  // namespace mirador
