// SPDX-License-Identifier: Apache-2.0
#include "lib/fs_info.h"

#include <gtest/gtest.h>

#include "lib/clock.h"
#include "lib/tool_paths.h"
#include "tests/lib/temp_dir.h"

namespace mirador {
namespace {

TEST(fs_info, InodeNumberIsTheHashOfThePath) {
    EXPECT_EQ(fs_ino_hash(""), 5381U);
    EXPECT_EQ(fs_ino_hash("a"), 0x2b5c4U);
    EXPECT_EQ(fs_ino_hash("/vm/disk-flat.vmdk"), 0x36453b83U);
    EXPECT_EQ(fs_ino_hash("/b\xc3\xbc"
                          "cher"),
              0x2fcb862bU);
}

// The tool is chosen once per process, so one script serves all cases and each case writes what it does.
TEST(fs_info, VolumeTypeIsWhatTheToolSays) {
    fast_clock_t clock(50);
    temp_dir_t dir;
    tool_paths().vol_id = dir / "absent";
    tool_paths().vol_id_fallback = write_script(dir / "vol_id", ". " + (dir / "case") + "\n");
    struct {
        std::string script;
        errnum_t number;
        vol_type_t vol_type;
        fs_type_t fs_type;
    } const cases[] = {
        {"echo ext3", 0, VOL_FILESYS, FS_TYPE_EXT3},
        {"echo LVM2_member", 0, VOL_LVM, FS_TYPE_LVM2},
        {"echo linux_raid_member", 0, VOL_LVM, FS_TYPE_MD},
        {"echo ' swap ext3'", 0, VOL_UNMOUNTABLE, FS_TYPE_SWAP},
        {"echo unknown:ext4", 0, VOL_UNKNOWN, FS_TYPE_UNKNOWN},
        {"echo btrfs", 0, VOL_UNKNOWN, FS_TYPE_UNKNOWN},
        {"exit 4", 0, VOL_UNKNOWN, FS_TYPE_UNKNOWN},
        {"echo ntfs; exit 4", 0, VOL_FILESYS, FS_TYPE_NTFS},
        {"echo ext3; exit 5", 5, VOL_UNKNOWN, FS_TYPE_UNKNOWN},
        {"head -c 100000 /dev/zero | tr '\\0' x", 0, VOL_UNKNOWN, FS_TYPE_UNKNOWN},
        {"[ \"$1,$2,$#\" = '-t,/dev/a b,2' ] && echo ext2", 0, VOL_FILESYS, FS_TYPE_EXT2},
    };
    for (const auto& c : cases) {
        write_file(dir / "case", c.script);
        vol_type_t vol_type = VOL_LVM;
        fs_type_t fs_type = FS_TYPE_MD;
        testing::internal::CaptureStdout();
        const errdesc_t* e = get_vol_fs_type("/dev/a b", &vol_type, &fs_type);
        const std::string log = testing::internal::GetCapturedStdout();
        EXPECT_EQ(e == nullptr ? 0 : e->number, c.number) << c.script;
        EXPECT_EQ(vol_type, c.vol_type) << c.script;
        EXPECT_EQ(fs_type, c.fs_type) << c.script;
        EXPECT_EQ(log.find("WARNING") != std::string::npos, c.number != 0) << log;
    }
    tool_paths() = {};
}

}  // namespace
}  // namespace mirador
