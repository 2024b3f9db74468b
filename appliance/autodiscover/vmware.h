// SPDX-License-Identifier: Apache-2.0
// Filling a host record from a VMX file.
#pragma once

#include <string>

#include "appliance/autodiscover/vhost.h"
#include "lib/errdesc.h"

namespace mirador {

// Whether a disk of this mode takes part in snapshots: all but the independent ones.
bool vmware_can_take_snapshot(const std::string& mode);

// Fills the record, whose magic is asserted, from the VMX file. A file that cannot be read is tried once more: hosts
// replace it while it is looked at. Each failure is followed by a pause of 3 seconds. A uuid that is none stays empty.
// Errors: those of vmx_open; EINVAL "more than 32 virtual disks for %s", the record then has none.
[[nodiscard]] errdesc_t* vmware_get_vhost_record(const std::string& vhost_path, vhost_record_t* record);

// The same with one try and no pause.
[[nodiscard]] errdesc_t* vmware_get_vhost_record_at_once(const std::string& vhost_path, vhost_record_t* record);

}  // namespace mirador
