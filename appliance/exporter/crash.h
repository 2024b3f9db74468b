// SPDX-License-Identifier: Apache-2.0
// Recovery at start-up: clears what a predecessor that died left on this machine, before anything is mounted.
//
// This machine is the daemon's own: every mount below a path containing "/mnt", every device-mapper device and every
// loop device goes, whoever made it. docs/state.md lists what the daemon makes and which step clears it.
#pragma once

#include <string>

namespace mirador {

// Runs the steps below in their order; a step's failure is logged and does not stop the others. `keep_tmpfs_dir`: the
// shadow tree is a directory of the user's, which is left alone.
void vm_proxy_crash_recover(const std::string& mountpoint, const std::string& tmpfs_path, bool keep_tmpfs_dir);

// Unmounts everything below "/mnt" by force and tells whether a predecessor's file systems are still mounted.
void crash_recover_umount(const std::string& mountpoint, const std::string& tmpfs_path, bool* fuse_mounted,
                          bool* tmpfs_mounted);
// Ends the FUSE connection behind the mount point: threads that wait for a dead predecessor's answers, in loop devices
// over its files, are freed, and detaching those does not hang.
void crash_recover_abort_fuse(const std::string& mountpoint);
void crash_recover_mapper();
void crash_recover_loop();
void crash_recover_tmp_files();
void crash_recover_fuse(const std::string& mountpoint, bool fuse_mounted);
void crash_recover_tmpfs(const std::string& tmpfs_path, bool tmpfs_mounted);
void crash_recover_nfs();
void crash_recover_cache();

// Has the next changed-block file of every disk hold what changed since its last full copy: whether the last one was
// copied whole is not known. For the controller thread's first cycle, as the next.
void crash_recover_reset_cbt_vdisk();

// Tells the controller that no VM's snapshots have a suffix any more, if it runs: one that a predecessor set stands for
// snapshots that are gone.
void crash_recover_reset_snap_suffix();

}  // namespace mirador
