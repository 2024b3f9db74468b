// SPDX-License-Identifier: Apache-2.0
// The alerts that the exporter raises about virtual machines. They are requests to the controller and take their time.
#pragma once

#include <string>

#include "controller/lib/kestrel_types.h"
#include "lib/errdesc.h"

namespace mirador {

// The alert about a VM that is only kept for its readers: it goes with the VM, or when that is listed again.
inline constexpr const char* in_use_alert = "user_defined_folder";

// Raises the VM's discovery alert with the error, or clears it (null). An alert that cannot be sent is only
// logged, and the thread's error stays what it was; the same of the next.
void raise_vm_discovery_alert(const errdesc_t* e, const ks_vm_config_t& vmc);

// Tells, or no longer tells, that a disk cannot be exported because snapshots leave it out.
void post_independent_disk_alert(const ks_vm_config_t& vmc, const std::string& disk_name, bool independent);

// Tells, or no longer tells, that a VM that left the inventory stays in the tree while its disks are read.
void post_in_use_alert(const ks_vm_config_t& vmc, const std::string& vm_path);
void clear_in_use_alert(const ks_vm_config_t& vmc, const std::string& vm_path);

// Tells that a disk's change id was not the expected one: what changed on the disk is not known.
void raise_unexpected_changeid_alert(const ks_vm_config_t& vmc, const std::string& disk_name);

// Clears that alert. Errors: the controller client's.
[[nodiscard]] errdesc_t* clear_unexpected_changeid_alert(const ks_vm_config_t& vmc);

}  // namespace mirador
