// SPDX-License-Identifier: Apache-2.0
// Taking the snapshot of a VM. It may last: the hypervisor may be busy, and the controller must have seen the snapshot
// before the VM's disks can be read from it.
#pragma once

#include <functional>
#include <string>

#include "appliance/exporter/snapshot_state.h"
#include "appliance/lib/vm_proxy_header.h"

namespace mirador {

// What a snapshot is wanted for.
struct snapshot_request_t {
    std::string path;              // exported file
    std::string file_shadow_path;  // its file in the shadow tree, in the VM's directory
    std::string caller_uuid;       // part of the snapshot's name
    std::string hvname;            // hypervisor's host name
    std::string vmuuid;
    std::function<bool()> goes_on;  // false when the daemon ends: waits and retries are given up
};

// What came of it.
struct snapshot_made_t {
    snapshot_state_ptr state;  // complete, without users; null on failure
    bool left_behind = false;  // on failure: the hypervisor may have the snapshot, or make it yet
};

// Takes the snapshot, waits until the controller has seen it, and updates the VM's files in the shadow tree. On failure
// what may have been made is removed again, and the VM's update follows from the controller's next generation. How it
// went is told to the controller (snapshot_alerts.h) and failures are logged.
//
// Errors: EINVAL for a VM that the controller does not know; snapshot_name_make's; those of the agent, the controller,
// the lock file and the VM's update; ERR_CANCELLED when the daemon ends meanwhile.
[[nodiscard]] errdesc_t* snapshot_state_new(const snapshot_request_t& request, snapshot_made_t* made);

}  // namespace mirador
