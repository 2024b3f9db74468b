// SPDX-License-Identifier: Apache-2.0
// Mounting and unmounting the shadow tmpfs, and clearing a FUSE mount whose daemon is gone. The programs are those of
// lib/tool_paths, each with 120 seconds to end.
#pragma once

#include <optional>
#include <string>

#include "lib/errdesc.h"

namespace mirador {

// Creates `mntdir` with missing parents (mode 0755) and mounts a tmpfs there, by default with
// "size=50M,nr_inodes=50000,mode=0755". Asserted: `mntdir` is given. Errors: errno with `mntdir`; the mount's error,
// after `mntdir` was removed with all that it holds.
[[nodiscard]] errdesc_t* tmpfs_create(const std::string& mntdir,
                                      const std::optional<std::string>& options = std::nullopt);

// Unmounts (forced, lazily) and in any case removes the directory tree. Errors: the unmount's, else the removal's.
[[nodiscard]] errdesc_t* tmpfs_remove(const std::string& mntdir);

// Unmounts a FUSE mount lazily. Asserted: `mnt_path` is given. Errors: errno with `mnt_path` when the program for it
// cannot be executed; the program's.
[[nodiscard]] errdesc_t* fuse_umount(const std::string& mnt_path);

}  // namespace mirador
