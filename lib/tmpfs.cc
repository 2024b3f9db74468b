// SPDX-License-Identifier: Apache-2.0
#include "lib/tmpfs.h"

#include <unistd.h>

#include <cerrno>

#include "lib/cor_assert.h"
#include "lib/file_tree.h"
#include "lib/spawn.h"
#include "lib/tool_paths.h"

namespace mirador {
namespace {

constexpr const char* default_options = "size=50M,nr_inodes=50000,mode=0755";
// A power cut leaves the directory behind, bare: what others put there the next start would remove as root.
constexpr mode_t mntdir_mode = 0755;

// Removes the tree while `e` is on its way up; an error of the removal is logged there and dropped.
errdesc_t* remove_and_pass(const std::string& mntdir, errdesc_t* e) {
    const errdesc_keeper_t keep;
    (void)rmdirr(mntdir);
    return e;
}

}  // namespace

errdesc_t* tmpfs_create(const std::string& mntdir, const std::optional<std::string>& options) {
    cor_assert(!mntdir.empty());
    if (mkdirp(mntdir, mntdir_mode) != 0)
        return errdesc_set_str(errno, mntdir);
    errdesc_t* e =
        spawn_tool({tool_paths().mount, "-t", "tmpfs", "-o", options.value_or(default_options), "tmpfs", mntdir});
    return e == nullptr ? nullptr : remove_and_pass(mntdir, e);
}

errdesc_t* tmpfs_remove(const std::string& mntdir) {
    errdesc_t* e = spawn_tool({tool_paths().umount, "-f", "-l", "-t", "tmpfs", mntdir});
    return e == nullptr ? rmdirr(mntdir) : remove_and_pass(mntdir, e);
}

errdesc_t* fuse_umount(const std::string& mnt_path) {
    cor_assert(!mnt_path.empty());
    if (access(tool_paths().fusermount.c_str(), X_OK) != 0)
        return errdesc_set_str(errno, mnt_path);
    return spawn_tool({tool_paths().fusermount, "-uz", mnt_path});
}

}  // namespace mirador
