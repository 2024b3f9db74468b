// SPDX-License-Identifier: Apache-2.0
// What a snapshot froze, as the VM's snapshot database tells it.
//
// The controller's word of it may be old: who removes a snapshot of his own has the hypervisor merge a frozen delta
// into the disk below, and the next snapshot's delta may get its name. Opened under that name the disk would be one
// that the VM writes to.
#pragma once

#include <string>

#include "lib/errdesc.h"

namespace mirador {

// Where the snapshot database of a shadow directory's VM can be read; empty while there is no such VM. Takes the lock
// of the VM's record, for a moment.
std::string snapshot_database_of(const std::string& vm_shadow_path);

// EAGAIN for a disk, `vmdk_path` being its descriptor, that is none of those which the snapshot `snapshot_name` froze.
// Where the database or the snapshot in it cannot be found, nothing is known against the disk.
[[nodiscard]] errdesc_t* snapshot_check_frozen(const std::string& database, const std::string& snapshot_name,
                                               const std::string& vmdk_path);

}  // namespace mirador
