// SPDX-License-Identifier: Apache-2.0
// What a snapshot froze, as the VM's snapshot database tells it.
//
// The controller's word of it may be old: who removes a snapshot of his own has the hypervisor merge a frozen delta
// into the disk below, and the next snapshot's delta may get its name. Opened under that name the disk would be one
// that the VM writes to.
#pragma once

#include <optional>
#include <string>

#include "appliance/exporter/snapshot_state.h"
#include "lib/errdesc.h"

namespace mirador {

// Where the snapshot database of a shadow directory's VM can be read; empty while there is no such VM. Takes the lock
// of the VM's record, for a moment.
std::string snapshot_database_of(const std::string& vm_shadow_path);

// Whether the database lists a snapshot of that name; nothing when it cannot be read.
std::optional<bool> snapshot_is_listed(const std::string& database, const std::string& snapshot_name);

// EAGAIN for a disk, `vmdk_path` being its descriptor, that is none of those which the snapshot froze. Nothing is known
// against a disk while the database cannot be read, and where it never listed the snapshot.
[[nodiscard]] errdesc_t* snapshot_check_frozen(const snapshot_state_t& state, const std::string& vmdk_path);

}  // namespace mirador
