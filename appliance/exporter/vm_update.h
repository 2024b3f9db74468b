// SPDX-License-Identifier: Apache-2.0
// Updates of exported VMs: what makes a VM's shadow directory agree with its files and with what the controller said
// of it. One entry for the VMX file, those of its disks (vd_state.h), one for the exported configuration file.
//
// An update holds the VM's mutex throughout and takes no other lock that lasts. A full update also copies the VMX file
// and writes the configuration file anew; any other only looks at the disks' files.
#pragma once

#include <functional>
#include <string>

#include "appliance/exporter/vm_state.h"
#include "lib/errdesc.h"

namespace mirador {

// Updates a VM if it needs it: a known one that is marked for a full update, or with `force`, or when the settings ask
// for updates on demand. `keep_mtime`: what changed is only a snapshot. The errors of _vm_update.
[[nodiscard]] errdesc_t* vm_update(const std::string& vm_shadow_path, bool force, bool keep_mtime);

// Sees to it that the disk behind an extent entry is told as the controller lists it: an update leaves a disk as it was
// that cannot be had, which is an older head by then. Updates the VM once more where that is so. Errors: EAGAIN with
// the entry when it stays so; EINVAL for an unknown VM.
[[nodiscard]] errdesc_t* vm_settle_disk(const std::string& extent_shadow_path);

// Updates the VMs of a hypervisor one after another while `goes_on()` holds; failures are logged.
void vm_update_all(const std::string& hv_hostname, const std::function<bool()>& goes_on);

// Makes the next update of each of the hypervisor's VMs a full one; of each VM whose directory lay below `shadow_dir`.
void vm_refresh_all(const std::string& hv_hostname);
void vm_refresh_below(const std::string& shadow_dir);

// One update. Without force nothing is done shortly after an attempt: cache_ttl seconds after a success, 30 after a
// failure. Errors: EINVAL when another VM has the directory; ENOENT for a disk without head; those of vd_update, of
// the copy of the VMX file, of the configuration file.
[[nodiscard]] errdesc_t* _vm_update(vm_state_t* vm_state, bool force, bool keep_mtime);

}  // namespace mirador
