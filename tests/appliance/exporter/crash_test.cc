// SPDX-License-Identifier: Apache-2.0
// Recovery against a mount table, a temporary directory and tools of the test's own; nothing of the machine is touched.
#include "appliance/exporter/crash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "appliance/lib/registry.h"
#include "lib/clock.h"
#include "lib/tool_paths.h"
#include "tests/lib/temp_dir.h"

namespace mirador {
namespace {

namespace fs = std::filesystem;

class crash : public testing::Test {
  protected:
    crash() {
        for (const char* name : {"tmp", "dev", "cache", "connections/77"})
            fs::create_directories(root_ + "/" + name);
        tool_paths_t& tools = tool_paths();
        for (std::string* tool : {&tools.umount, &tools.dmsetup, &tools.losetup, &tools.exportfs, &tools.fusermount})
            *tool = recording_tool(fs::path(*tool).filename());
        tools.mount_table = write("mtab", "");
        tools.mount_info = write("mountinfo", "");
        tools.fuse_connections = root_ + "/connections";
        write("connections/77/abort", "");
        tools.tmp_dir = root_ + "/tmp";
        tools.cache_dir = root_ + "/cache";
        tools.loop_prefix = root_ + "/dev/loop";
    }
    ~crash() override {
        tool_paths() = saved_;
        get_reg_settings()->cbt_debug_enabled = false;
    }

    std::string write(const std::string& name, const std::string& content) const {
        return write_file(root_ + "/" + name, content);
    }
    std::string recording_tool(const std::string& name) const {
        return write_script(root_ + "/" + name, "echo \"$(basename $0) $*\" >>" + root_ + "/calls\n");
    }
    std::vector<std::string> calls() const {
        std::ifstream file(root_ + "/calls");
        std::vector<std::string> lines;
        for (std::string line; std::getline(file, line);)
            lines.push_back(line);
        return lines;
    }
    std::string written_to_abort_77() const { return read_file(root_ + "/connections/77/abort"); }
    std::vector<std::string> work_files() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(root_ + "/tmp"))
            names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }

    fast_clock_t clock_{100};  // each tool is waited for in steps of a second
    const tool_paths_t saved_ = tool_paths();
    const temp_dir_t dir_;
    const std::string root_ = dir_.path();
};

TEST_F(crash, ClearsEverythingInItsOrder) {
    const std::string mount_point = root_ + "/x";
    const std::string shadow = root_ + "/x.shadow";
    fs::create_directories(shadow);
    write("mtab", "a /mnt/disk ext4 rw 0 0\nb /data/mnt2/y ext4 rw 0 0\ntmpfs " + shadow + " tmpfs rw 0 0\nmirador " +
                      mount_point + " fuse.mirador rw 0 0\nc /home ext4 rw 0 0\n");
    write("mountinfo",
          "20 1 0:77 / " + mount_point + " rw - fuse.mirador mirador rw\n21 1 0:78 / /home rw - ext4 c rw\n");
    write("dev/loop0", "");
    write("dev/loop17", "");
    write("dev/loop256", "");
    write("cache/file", "");
    vm_proxy_crash_recover(mount_point, shadow, false);
    const std::vector<std::string> expected = {
        "umount -fl /mnt/disk",
        "umount -fl /data/mnt2/y",
        "dmsetup remove_all -f",
        "losetup -d " + root_ + "/dev/loop0",
        "losetup -d " + root_ + "/dev/loop17",
        "fusermount -uz " + mount_point,
        "umount -f -l -t tmpfs " + shadow,
        "exportfs -ua",
        "exportfs -a",
    };
    EXPECT_EQ(calls(), expected);
    EXPECT_FALSE(fs::exists(shadow));
    EXPECT_FALSE(fs::exists(root_ + "/cache"));
    EXPECT_EQ(written_to_abort_77(), "1\n");
}

TEST_F(crash, FindsAMountPointWhoseNameBeginsLikeTheShadowTrees) {
    bool fuse_mounted = false;
    bool tmpfs_mounted = false;
    write("mtab", "mirador /a/xy fuse.mirador rw 0 0\n");
    crash_recover_umount("/a/xy", "/a/x", &fuse_mounted, &tmpfs_mounted);
    EXPECT_TRUE(fuse_mounted);
    EXPECT_FALSE(tmpfs_mounted);
}

TEST_F(crash, FindsTheConnectionOfAMountPointWithBlanks) {
    write("mountinfo",
          "20 1 0:78 / /x rw - fuse.other a rw\n21 1 0:77 / /x\\040y\\134z rw - fuse.mirador mirador rw\n");
    crash_recover_abort_fuse("/x y\\z");
    EXPECT_EQ(written_to_abort_77(), "1\n");
}

TEST_F(crash, UnmountsByForceWhereTheKernelShowsNoConnections) {
    write("mountinfo", "20 1 0:78 / /x rw - fuse.mirador mirador rw\n");
    crash_recover_abort_fuse("/x");
    EXPECT_EQ(calls(), std::vector<std::string>{"umount -fl /x"});
    crash_recover_abort_fuse("/y");
    EXPECT_EQ(calls().size(), 1U) << "what is no FUSE mount stays";
}

TEST_F(crash, TouchesNothingOfACleanMachineAndKeepsAUsersDirectory) {
    const std::string shadow = root_ + "/users.shadow";
    fs::create_directories(shadow);
    vm_proxy_crash_recover(root_ + "/users", shadow, true);
    EXPECT_EQ(calls(), (std::vector<std::string>{"dmsetup remove_all -f", "exportfs -ua", "exportfs -a"}));
    EXPECT_TRUE(fs::exists(shadow));
    vm_proxy_crash_recover(root_ + "/users", shadow, false);
    EXPECT_FALSE(fs::exists(shadow));
}

TEST_F(crash, FailingToolsStopNothing) {
    tool_paths().dmsetup = root_ + "/none";
    tool_paths().mount_table = root_ + "/none";
    vm_proxy_crash_recover(root_ + "/x", root_ + "/x.shadow", false);
    EXPECT_EQ(calls(), (std::vector<std::string>{"exportfs -ua", "exportfs -a"}));
    EXPECT_FALSE(fs::exists(root_ + "/cache"));
}

TEST_F(crash, WorkFilesGoUnlessDebuggingKeepsThem) {
    const std::vector<std::string> names = {"a.corstorage",    "b.query_results", "c.dmsetup_table", "d.header",
                                            "e.header.backup", "f.zero",          "header"};
    for (const std::string& name : names)
        write("tmp/" + name, "");
    get_reg_settings()->cbt_debug_enabled = true;
    crash_recover_tmp_files();
    EXPECT_EQ(work_files(), std::vector<std::string>(names.begin() + 1, names.end()));
    get_reg_settings()->cbt_debug_enabled = false;
    crash_recover_tmp_files();
    EXPECT_EQ(work_files(), (std::vector<std::string>{"e.header.backup", "header"}));
}

}  // namespace
}  // namespace mirador
