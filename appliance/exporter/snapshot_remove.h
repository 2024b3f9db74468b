// SPDX-License-Identifier: Apache-2.0
// Removing the snapshots that this appliance made.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>

#include "appliance/exporter/snapshot_state.h"

namespace mirador {

// Pauses `seconds`, or less when `goes_on` says that the daemon ends; false then.
bool snapshot_pause(unsigned seconds, const std::function<bool()>& goes_on);

// Removes the state's snapshot from the hypervisor, if it may be there, and gives the VM's lock back in any case.
// Blocking: asks the agent to wait, and waits itself until the VM shows no snapshot and its files are updated;
// `goes_on` (null: always) ends that waiting when it says no. With `alert` the controller is told how it went. A
// failure is logged, and stands afterwards in the error memory under the VM's path. Errors: the agent's, the
// controller's.
[[nodiscard]] errdesc_t* snapshot_state_destroy(snapshot_state_t* state, bool blocking, bool alert,
                                                const std::function<bool()>& goes_on);

// The same, blocking and told to the controller; while another task holds the VM, up to `snapshot_retry_limit` times,
// 15 seconds apart.
[[nodiscard]] errdesc_t* snapshot_state_destroy_waiting(snapshot_state_t* state, const std::function<bool()>& goes_on);

// Which states go, and how.
struct snapshot_removal_t {
    std::time_t now = 0;       // those unused for `snapshot_max_idle` seconds at this time
    std::int64_t max_ref = 0;  // and with no more users than this
    bool blocking = false;
    bool is_last = false;           // one attempt each: the daemon ends
    std::function<bool()> goes_on;  // false: give up after the attempt on its way
};

// Destroys the states that are due and takes them out of the list; one that cannot be removed stays. Attempts go on for
// `snapshot_retry_limit` times, 15 seconds apart. One that the agent turns down with EINVAL is given up when the
// controller has the VM no longer, or on another hypervisor. Before the last time a state waits while its VM is read
// through another hypervisor. The caller holds the mutex that guards the states.
void snapshot_state_remove_old(snapshot_list_t* list, const snapshot_removal_t& removal);

}  // namespace mirador
