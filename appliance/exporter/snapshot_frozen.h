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
// of the VM's record, for a moment, and looks at the datastore.
std::string snapshot_database_of(const std::string& vm_shadow_path);

// The number of the newest snapshot of a name in the database; none when it lists no such snapshot or cannot be read.
std::optional<snapshot_number_t> snapshot_number_in(const std::string& database, const std::string& snapshot_name);

// Whether a disk, `vmdk_path` being its descriptor, is one that the snapshot froze. Nothing is known against a disk
// where the database cannot be read, or not whole. Errors: EAGAIN for one that was not frozen; ESTALE for a snapshot
// that is lost (below), after a wait of 10 seconds; EMFILE, ENFILE, ENOMEM.
[[nodiscard]] errdesc_t* snapshot_check_frozen(snapshot_state_t* state, const std::string& vmdk_path);

// ESTALE once the database has been without the snapshot for 10 seconds: somebody else has removed it, and what it
// froze changes. Of the readers that call this, one every 5 seconds looks into the database, and waits as long as its
// datastore does; while the snapshot is missing, all wait to see whether it comes back. Takes no lock.
[[nodiscard]] errdesc_t* snapshot_check_not_lost(snapshot_state_t* state);

// The ESTALE of a snapshot that somebody else has removed.
[[nodiscard]] errdesc_t* snapshot_no_longer_there(const snapshot_state_t& state);

}  // namespace mirador
