// SPDX-License-Identifier: Apache-2.0
// Snapshots of VMs, whatever the hypervisor: taking, removing and listing them. ESX is the only kind served.
//
// Nothing is kept here and nothing locked; any thread may call, and waits for as long as the agent takes.
//
// Errors: EINVAL "Snapshot '<name>' of VM '<name>' refused, <fault>" for a request without VM, uuid or snapshot name,
// which come from the controller as well; those of the agent and its session (vmware/lib/webservices/ws_snapshot.h),
// which refuses a server that cannot be connected to. Asserted: a record that snapshot_init has not made; a kind other
// than ESX_HYPERVISOR.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "controller/lib/kestrel_types.h"
#include "lib/errdesc.h"
#include "lib/secret.h"

namespace mirador {

// What a user of a snapshot does, and what is told of it.
enum snapshot_action_t : unsigned { SNAPSHOT_UNKNOWN = 0, SNAPSHOT_CREATE = 1, SNAPSHOT_REMOVE = 2 };

enum hypervisor_type_t : std::uint32_t {
    ESX_HYPERVISOR = 0,
    VMWARE_HOSTED_HYPERVISOR = 1,
    HYPERV_HYPERVISOR = 2,
    XEN_HYPERVISOR = 3,
};

// A request for a snapshot, or one that is listed.
struct snapshotdesc_t {
    static constexpr std::uint32_t magic_value = 0xeeeeeeff;
    static constexpr std::uint32_t version_value = 1;

    std::uint32_t magic = 0;  // magic_value from snapshot_init to snapshot_free
    std::uint32_t version = 0;
    hypervisor_type_t type = ESX_HYPERVISOR;
    std::string server;  // the hypervisor's host name; with port, user and password empty in listings
    int port = 0;        // management, 1 to 65535
    std::string user;
    secret_t passwd;
    std::string vmname;
    std::string vmuuid;
    std::string snapshotname;
    std::time_t ctime = 0;  // listings: creation, seconds since the epoch
    bool quiesce = false;   // take it with the guest's file systems at rest; listings: it was
    bool blocking = false;  // removal: wait until it is gone
};

// Empties the record and opens it; empties and closes it.
void snapshot_init(snapshotdesc_t* desc);
void snapshot_free(snapshotdesc_t* desc);

// Takes the snapshot. With `create_count`, only the one that must be on top before it: *create_count is then how many
// the agent made for that, 0 to ws_max_count.
[[nodiscard]] errdesc_t* snapshot_create(const snapshotdesc_t& desc, int* create_count);

// Removes it. *remove_count, where it is wanted: how many of that name there were, 0 to ws_max_count.
[[nodiscard]] errdesc_t* snapshot_remove(const snapshotdesc_t& desc, int* remove_count);

// Appends the hypervisor's snapshots whose names the agent finds to match the regular expression. What it lists is
// outside data: look at each name before acting on it.
[[nodiscard]] errdesc_t* snapshot_list(const ks_hypervisor_config_t& hvc, hypervisor_type_t type,
                                       const std::string& snapshotname_regex, std::vector<snapshotdesc_t>* list);

// The same two for ESX.
[[nodiscard]] errdesc_t* esx_snapshot_create(const snapshotdesc_t& desc, int* create_count);
[[nodiscard]] errdesc_t* esx_snapshot_remove(const snapshotdesc_t& desc, int* remove_count);

}  // namespace mirador
