// SPDX-License-Identifier: Apache-2.0
// The exported disks of one VM. A disk shows up in the VM's shadow directory as a descriptor entry, a flat extent entry
// and, with changed-block tracking, a changed-block entry, each a proxy header. Here it is decided when a disk must be
// looked at again, under which names the disks of one VM stand side by side, and which are gone.
//
// A list belongs to its VM: whoever calls holds the VM's mutex.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "controller/lib/kestrel_types.h"
#include "lib/errdesc.h"
#include "lib/list.h"

namespace mirador {

struct vd_state_t {
    static constexpr std::uint32_t magic_value = 0xeeeebbbb;
    static constexpr std::uint32_t version_value = 1;

    std::uint32_t magic = magic_value;
    std::uint32_t version = version_value;
    std::uint64_t gen = 0;             // stamp of the last update of the VM that kept this disk
    std::string current_vd_path;       // head descriptor as the controller names it
    std::string current_vd_fpath;      // head descriptor where it can be read
    std::string root_vd_fpath;         // base descriptor: the disk's identity
    std::string cached_vd_fpath;       // copy of the base descriptor, with the names of the shadow tree
    std::int64_t vd_size = 0;          // bytes: what the descriptor entry reports, the capacity until there is a copy
    std::int64_t extent_size = 0;      // bytes of the base extent's file
    std::string vd_shadow_path;        // descriptor entry
    std::string extent_shadow_path;    // flat extent entry
    std::string current_extent_fpath;  // head extent
    std::string root_extent_fpath;     // base extent
    bool thinprovisioned = false;
    bool cbt_reset_failed = false;  // the last update could not do what a pending reset of tracking asks for
    bool renamed = false;           // the shadow tree's names differ from the datastore's
    std::string old_vd_name;        // the base descriptor's file name on the datastore
    std::string new_vd_name;        // and in the shadow tree
    std::string old_extent_name;    // the base extent's
    std::string new_extent_name;
    struct ::stat stat {};  // of the head descriptor when it was last looked at
};

using vd_list_t = list_t<std::unique_ptr<vd_state_t>>;
using ks_vdisk_list_t = std::vector<ks_vdisk_t>;

// What one update of a VM tells each of its disks.
struct vd_update_t {
    std::uint64_t gen = 0;  // the update's stamp
    std::string vm_shadow_path;
    std::string vm_uuid;
    std::string working_dir;  // where the VM's snapshots lie
    std::string vm_dir;       // where its configuration lies
    std::string hv_name;
    bool is_template = false;
    bool use_cbt = false;
    bool cbt_reset_pending = false;          // tracking has started anew since the last update
    std::uint32_t cbt_reset_time = 0;        // when, seconds since the epoch; 0: not known
    std::uint32_t cbt_reset_time_prev = 0;   // and the time before
    std::vector<std::string> reserved = {};  // of disks that come first but could not be looked at; see vd_reserve
    bool force = false;                      // look again though nothing seems to have changed
    bool keep_mtime = false;                 // what changed is only a snapshot: clients go on seeing the old times
};

// Marks the disks that the controller still lists with the stamp, so that they survive an update in which their own
// refresh fails. One that snapshots leave out by now is not marked: read without one, it would change under its reader.
void vd_touch_gen(const ks_vdisk_list_t& vmc_vdisk_list, vd_list_t* vd_list, std::uint64_t gen);

// Refreshes one disk and points *vd_state_out at its state, which stays the list's. `vdisk` must have a head descriptor
// (asserted). Errors: EINVAL with the record's fault, for one that lacks a path or leads outside the datastores; errno
// with the path of a file that cannot be reached; EINVAL for names that cannot be told apart; what vmdk_copy_descfiles
// and vm_proxy_touch report. A disk that is new is the list's from then on although an entry of it could not be
// written.
[[nodiscard]] errdesc_t* vd_update(vd_list_t* vd_list, const ks_vdisk_t& vdisk, const vd_update_t& update,
                                   const vd_state_t** vd_state_out);

// Keeps the names of a disk that could not be looked at, and was not before either, for it: another disk of its name
// that comes later in the list gets the other name as ever.
void vd_reserve(const ks_vdisk_t& vdisk, vd_update_t* update);

// A listed disk as the last update left it; null when there is none.
const vd_state_t* vd_find(vd_list_t* vd_list, const ks_vdisk_t& vdisk);

// Whether the disk that an extent entry stands for was taken over with the head that the controller lists for it. False
// as well for an entry of no listed disk, and of one that snapshots leave out.
bool vd_is_current(const ks_vdisk_list_t& vmc_vdisk_list, vd_list_t* vd_list, const std::string& extent_shadow_path);

// Removes the disks that do not bear the stamp, entries and all.
void vd_stop_old(vd_list_t* vd_list, std::uint64_t gen);

// Removes all disks. Changed-block entries stay: the VM's directory goes next. `keeps_copies`: those in the cache are
// also served from another directory.
void vd_stop_all(vd_list_t* vd_list, bool keeps_copies);

// The head descriptor where it can be read: in the working directory, else in the VM's directory. Error: errno with the
// last path tried.
[[nodiscard]] errdesc_t* vd_get_fpath(const std::string& head_ascii_path, const std::string& working_dir,
                                      const std::string& vm_dir, std::string* fpath);

}  // namespace mirador
