// SPDX-License-Identifier: Apache-2.0
// The snapshots behind open disks: who uses one, and the thread that removes those that nobody has used for a while,
// those that an earlier run left behind, and reports those that have grown old.
//
// One mutex guards all records. A creation or removal holds it to its end, minutes with a busy hypervisor, so that
// snapshots are made and removed one after another; whoever opens a disk meanwhile waits. Whether a VM has a snapshot
// can be asked at any time without it.
#pragma once

#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "appliance/lib/snapshot.h"
#include "appliance/lib/vm_proxy_header.h"
#include "lib/errdesc.h"

namespace mirador {

struct snapshot_state_t;

// Starts the thread, once. It looks for what an earlier run left before anything else.
void snapshot_state_init();

// Ends the thread and removes all snapshots, those in use too. To be called when no disk is open any more.
void snapshot_state_shutdown();

// Makes the thread look at once. Takes no lock; a kick that meets a thread at work may be lost, which costs the
// 15 seconds until its next look.
void kick_snapshot_thr();

// From now on creations and removals give up their waits and retries. Take no lock.
void snapshot_state_hurry();
bool snapshot_state_hurries();

// Takes (gives back) a reference to the snapshot of the VM that `header` names, for the exported file `path`; other
// actions are asserted against. The first reference makes the snapshot and *header is read anew: the snapshot has moved
// the VM's disks. *vmname becomes the VM's name when it was empty, *ctime the time of the snapshot.
//
// Of a VM that cannot be snapshotted nothing is taken: *vmname becomes the header's VM UUID when it was empty, and
// *ctime 0. Giving back what is not there is success. Errors: snapshot_state_new's (snapshot_make.h); ESTALE for
// a snapshot in use that somebody else has removed; EBUSY for a VM that is read through another hypervisor; those of
// the header.
[[nodiscard]] errdesc_t* snapshot_update(const std::string& path, const std::string& file_shadow_path,
                                         const std::string& master_uuid, snapshot_action_t action,
                                         vm_proxy_header_t* header, std::string* vmname, std::time_t* ctime);

// Whether the VM has a snapshot of this run or one left over. Takes the list's own mutex, for moments.
bool snapshot_existed(const std::string& hv_name, const std::string& vm_uuid);

// Whether it had one that the controller shows no more, or that a reader looked for in vain: somebody else has removed
// it, and the VM writes to what it froze. Takes the locks of the lists and of the VM's record, each for moments; not
// the thread's mutex. Who is the last user of a VM's record that was retired meanwhile takes its directory away, too.
bool snapshot_is_gone(const std::string& hv_name, const std::string& vm_uuid);

// Removes a named snapshot of a VM on request. Errors: EBUSY while disks of the VM are open, through any hypervisor;
// EAGAIN when it is unused: the thread removes it now; snapshot_remove_named's (snapshot_scrub.h) where this daemon has
// no snapshot of the VM.
[[nodiscard]] errdesc_t* snapshot_scrub_ex(const std::string& hv_name, const std::string& vm_uuid,
                                           const std::string& snapshot_name);

// One use of a VM's snapshot by an exported file; its end gives the reference back, logging a failure.
class snapshot_use_t {
  public:
    // Takes the reference. The arguments and errors of snapshot_update.
    [[nodiscard]] static errdesc_t* take(const std::string& path, const std::string& file_shadow_path,
                                         vm_proxy_header_t* header, std::string* vmname, std::time_t* ctime,
                                         std::shared_ptr<snapshot_use_t>* use);
    ~snapshot_use_t();
    snapshot_use_t(const snapshot_use_t&) = delete;
    snapshot_use_t& operator=(const snapshot_use_t&) = delete;

    // snapshot_is_gone() of the VM.
    bool is_gone() const;

    // snapshot_check_frozen() of a disk of the VM.
    [[nodiscard]] errdesc_t* check_frozen(const std::string& vmdk_path) const;

    // snapshot_check_not_lost().
    [[nodiscard]] errdesc_t* check_not_lost() const;

  private:
    snapshot_use_t(std::string path, std::string shadow_path, const vm_proxy_header_t& header,
                   std::shared_ptr<snapshot_state_t> state)
        : path_(std::move(path)), shadow_path_(std::move(shadow_path)), header_(header), state_(std::move(state)) {}

    std::string path_;
    std::string shadow_path_;
    vm_proxy_header_t header_;
    std::shared_ptr<snapshot_state_t> state_;  // null for a VM that cannot be snapshotted
};

}  // namespace mirador
