// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/crash.h"

#include <dirent.h>
#include <mntent.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>

#include "appliance/exporter/fuse_connection.h"
#include "appliance/lib/registry.h"
#include "lib/cor_string.h"
#include "lib/fault_point.h"
#include "lib/file_io.h"
#include "lib/file_tree.h"
#include "lib/spawn.h"
#include "lib/tmpfs.h"
#include "lib/tool_paths.h"

namespace mirador {
namespace {

constexpr int last_loop = 255;

void log_failure(errdesc_t* e, int level) {
    if (e != nullptr)
        _errdesc_log(e, level);
}

struct mount_table_closer_t {
    void operator()(std::FILE* table) const { endmntent(table); }
};

// Whether a file of the temporary directory is one of the daemon's work files that go at start-up.
bool is_work_file(std::string_view name) {
    const std::size_t dot = name.rfind('.');
    if (dot == std::string_view::npos)
        return false;
    const std::string_view extension = name.substr(dot);
    if (extension == ".corstorage")
        return true;
    if (get_reg_settings()->cbt_debug_enabled)
        return false;
    return extension == ".query_results" || extension == ".dmsetup_table" || extension == ".header" ||
           extension == ".zero";
}

void remove_work_file(const std::string& path) {
    if (unlink(path.c_str()) != 0)
        log_failure(errdesc_set_str(errno, path), ERRDESC_INFO);
}

}  // namespace

void crash_recover_umount(const std::string& mountpoint, const std::string& tmpfs_path, bool* fuse_mounted,
                          bool* tmpfs_mounted) {
    *fuse_mounted = false;
    *tmpfs_mounted = false;
    const std::unique_ptr<std::FILE, mount_table_closer_t> table(setmntent(tool_paths().mount_table.c_str(), "re"));
    if (table == nullptr) {
        log_failure(errdesc_set_str(errno, tool_paths().mount_table), ERRDESC_ERROR);
        return;
    }
    mntent entry{};
    std::array<char, path_size> line{};
    while (getmntent_r(table.get(), &entry, line.data(), static_cast<int>(line.size())) != nullptr) {
        const std::string_view directory = entry.mnt_dir;
        if (directory.find("/mnt") != std::string_view::npos)
            log_failure(spawn_tool({tool_paths().umount, "-fl", entry.mnt_dir}), ERRDESC_ERROR);
        else if (directory == mountpoint)
            *fuse_mounted = true;
        else if (directory.starts_with(tmpfs_path))  // by default it begins with the mount point
            *tmpfs_mounted = true;
        else if (directory.starts_with(mountpoint))
            *fuse_mounted = true;
    }
}

void crash_recover_abort_fuse(const std::string& mountpoint) {
    const int connection = fuse_connection_of(mountpoint);
    if (connection >= 0)
        log_failure(fuse_connection_end(connection, mountpoint), ERRDESC_ERROR);
}

void crash_recover_mapper() {
    log_failure(spawn_tool({tool_paths().dmsetup, "remove_all", "-f"}), ERRDESC_ERROR);
}

void crash_recover_loop() {
    for (int n = 0; n <= last_loop; n++) {
        const std::string device = tool_paths().loop_prefix + std::to_string(n);
        if (access(device.c_str(), F_OK) == 0)
            (void)spawn_tool({tool_paths().losetup, "-d", device});
    }
}

void crash_recover_tmp_files() {
    const std::string& directory = tool_paths().tmp_dir;
    const dir_ptr dir(opendir(directory.c_str()));
    if (dir == nullptr) {
        log_failure(errdesc_set_str(errno, directory), ERRDESC_INFO);
        return;
    }
    for (;;) {
        errno = 0;
        const dirent* entry = readdir(dir.get());  // NOLINT(concurrency-mt-unsafe): the stream is ours alone
        if (entry == nullptr)
            break;
        if (is_work_file(entry->d_name))
            remove_work_file(cor_format_path("%s/%s", directory.c_str(), entry->d_name));
    }
    if (errno != 0)
        log_failure(errdesc_set_str(errno, directory), ERRDESC_INFO);
}

void crash_recover_fuse(const std::string& mountpoint, bool fuse_mounted) {
    if (fuse_mounted)
        log_failure(fuse_umount(mountpoint), ERRDESC_ERROR);
}

void crash_recover_tmpfs(const std::string& tmpfs_path, bool tmpfs_mounted) {
    if (tmpfs_mounted)
        log_failure(tmpfs_remove(tmpfs_path), ERRDESC_ERROR);
    else
        (void)rmdirr(tmpfs_path);  // logs its own failure
}

void crash_recover_nfs() {
    (void)spawn_tool({tool_paths().exportfs, "-ua"});
    fault_moment("recover.withdrawn");
    (void)spawn_tool({tool_paths().exportfs, "-a"});
}

void crash_recover_cache() {
    (void)rmdirr(tool_paths().cache_dir);  // logs its own failure
}

void vm_proxy_crash_recover(const std::string& mountpoint, const std::string& tmpfs_path, bool keep_tmpfs_dir) {
    bool fuse_mounted = false;
    bool tmpfs_mounted = false;
    crash_recover_umount(mountpoint, tmpfs_path, &fuse_mounted, &tmpfs_mounted);
    if (fuse_mounted)
        crash_recover_abort_fuse(mountpoint);
    fault_moment("recover.ended");
    crash_recover_mapper();
    fault_moment("recover.unmapped");
    crash_recover_loop();
    crash_recover_tmp_files();
    fault_moment("recover.detached");
    crash_recover_fuse(mountpoint, fuse_mounted);
    if (!keep_tmpfs_dir)
        crash_recover_tmpfs(tmpfs_path, tmpfs_mounted);
    fault_moment("recover.unmounted");
    crash_recover_nfs();
    crash_recover_cache();
    fault_moment("recover.done");
}

}  // namespace mirador
