// SPDX-License-Identifier: Apache-2.0
// The snapshot of a VM that open disks are read from: its record, its name and the lock file in the VM's directory.
//
// A record's users are counted; the snapshot goes when it has had none for a while (snapshot_remove.h). While it exists
// a shared flock on the VM's lock file tells other programs that the VM's directory is to stay as it is.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <string>

#include "appliance/lib/snapshot.h"
#include "controller/lib/kestrel_types.h"
#include "lib/errdesc.h"
#include "lib/file_io.h"
#include "lib/list.h"

namespace mirador {

// What tells a snapshot from every other of its VM: a host may begin to count at 1 again when none is left.
struct snapshot_number_t {
    std::uint64_t uid = 0;
    std::uint32_t createtimehigh = 0;
    std::uint32_t createtimelow = 0;

    bool operator==(const snapshot_number_t&) const = default;
};

struct snapshot_state_t {
    static constexpr std::uint32_t magic_value = 0xbbbbccbb;
    static constexpr std::uint32_t version_value = 1;

    // Constant from the moment in which the record enters the list.
    std::uint32_t magic = magic_value;
    std::uint32_t version = version_value;
    std::string hvname;                         // hypervisor's host name
    std::string vmname;                         //
    std::string vmuuid;                         //
    std::string snapshotname;                   // on the hypervisor
    std::optional<std::string> vm_shadow_path;  // absent for one that an earlier run left behind
    std::time_t ctime = 0;                      // when the snapshot was made
    bool quiesce = false;
    bool snapshot_created = false;            // the hypervisor has it, or may have it: it must be removed
    ks_hypervisor_config_t hypervisor;        // as last known, for a removal while the controller is away
    std::string database;                     // the VM's, of its snapshots, as it can be read
    std::optional<snapshot_number_t> number;  // the snapshot's there; none: it does not tell

    // Under the thread's mutex.
    std::int64_t ref = 0;        // users; never negative
    std::time_t atime = 0;       // last change of `ref`
    unique_fd lockfd;            // holds the lock on the VM's lock file
    bool removal_begun = false;  // the snapshot may be gone, whatever was answered: nobody reads from it any more

    // Of whoever reads from the snapshot: when to look for it in the database, whether somebody does, whether it was
    // missing there just now, and whether somebody else has removed it. Reading fails from then on.
    std::atomic<std::time_t> next_look = 0;
    std::atomic<bool> is_looked_for = false;
    std::atomic<bool> is_missing = false;
    std::atomic<bool> is_lost = false;

    bool is_leftover() const { return !vm_shadow_path; }
};
using snapshot_state_ptr = std::shared_ptr<snapshot_state_t>;
using snapshot_list_t = list_t<snapshot_state_ptr>;

// Magic and version of a record are right, and its count is not negative (asserted).
void snapshot_state_check(const snapshot_state_t& state);

// The record of a VM; null when the list has none. Takes the list's own mutex only.
snapshot_state_ptr snapshot_state_find(const snapshot_list_t& list, const std::string& hv_name,
                                       const std::string& vm_uuid);

// Two hypervisors may list one VM: a host and what manages it, or a host under its old and its new name. A snapshot
// that is removed through one of them is gone for the other too. The caller holds the thread's mutex.

// A record of the VM that has users and was made through another hypervisor; null when the list has none.
snapshot_state_ptr snapshot_state_used_elsewhere(const snapshot_list_t& list, const std::string& hv_name,
                                                 const std::string& vm_uuid);

// From now on nobody reads from snapshots of the VM that were made through other hypervisors: they may go.
void snapshot_state_distrust_elsewhere(const snapshot_list_t& list, const std::string& hv_name,
                                       const std::string& vm_uuid);

// Prints the list, at debug level 2.
void snapshot_state_dump(const snapshot_list_t& list);

// The request that names the state's snapshot on a hypervisor.
snapshotdesc_t snapshot_state_desc(const snapshot_state_t& state, const ks_hypervisor_config_t& hvc, bool blocking);

// Names. All snapshots of this vendor begin with "<vendor id>: ", those of this appliance with "<vendor id>: <uuid>";
// the VM's suffix, where it has one, comes behind a blank.

// Errors: EINVAL for a suffix of 21 characters or more; ERR_NOT_AVAILABLE while vendor or uuid is empty, for such a
// name would pass for everybody's.
[[nodiscard]] errdesc_t* snapshot_name_make(const std::string& vendor_id, const std::string& uuid,
                                            const ks_string_t& suffix, std::string* name);

// Regular expressions for the agent, the names' own characters escaped: of this appliance, of this vendor.
std::string snapshot_name_pattern(const std::string& vendor_id, const std::string& uuid);
std::string snapshot_name_pattern(const std::string& vendor_id);

// Whether a name is one of this vendor's; of this appliance's. Neither is while vendor or uuid is empty.
bool snapshot_name_is_vendors(const std::string& name, const std::string& vendor_id);
bool snapshot_name_is_ours(const std::string& name, const std::string& vendor_id, const std::string& uuid);

// Opens the lock file in the directory of `path`, making it where it is missing, and takes a lock on it: a shared one,
// waiting for it, or an exclusive one, at once or not at all. Errors: errno with the lock file's path.
[[nodiscard]] errdesc_t* snapshot_state_lock(const std::string& path, unique_fd* fd, bool shared);

// Whether somebody holds a lock on the lock file of a VM's directory.
bool snapshot_state_is_locked(const std::string& dir);

}  // namespace mirador
