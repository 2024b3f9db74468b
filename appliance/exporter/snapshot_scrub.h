// SPDX-License-Identifier: Apache-2.0
// Snapshots that nobody of this run made: finding those that an earlier run left on the hypervisors, reporting those
// that have grown old, removing one by name.
//
// Nothing is looked for, reported or removed while this appliance does not know its own identity: everybody's snapshots
// would pass for its own.
#pragma once

#include <ctime>
#include <string>

#include "appliance/exporter/snapshot_state.h"

namespace mirador {

// The kind of the alerts that snapshot_scrub raises and clears.
inline constexpr const char* old_snapshot_alert = "old_snapshot";

// Enters a record without users for each snapshot of this appliance that the hypervisors have; of VMs that the
// controller knows only. A hypervisor that cannot be asked, and a VM of which the controller does not tell, is skipped
// and logged; *saw_all tells that there was none. Errors: ERR_NOT_AVAILABLE without identity; the controller's, when
// the hypervisors cannot be had.
[[nodiscard]] errdesc_t* snapshot_state_find_leftover(snapshot_list_t* list, bool* saw_all);

// Looks at all snapshots of this vendor: enters those of this appliance that the list lacks as above, raises an alert
// for any other that is older than `snapshot_max_life` seconds, and clears the alerts of those that are gone.
// *had_identity: vendor and uuid were known. Errors: as above.
[[nodiscard]] errdesc_t* snapshot_scrub(snapshot_list_t* list, std::time_t now, bool* had_identity);

// Removes the named snapshot of a VM of which the list has no record. Errors: ERR_NOT_AVAILABLE without identity;
// ENOENT when the VM has none of that name; ERR_INSUFFICIENT_PERMS for one that is not this vendor's; those of the
// controller and the agent.
[[nodiscard]] errdesc_t* snapshot_remove_named(const std::string& hv_name, const std::string& vm_uuid,
                                               const std::string& snapshot_name);

}  // namespace mirador
