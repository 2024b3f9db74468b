// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/vm_proxy_attr.h"

#include <cerrno>
#include <filesystem>

#include "appliance/exporter/shadow_fixture.h"
#include "lib/error_hash.h"

namespace mirador {
namespace {

class vm_proxy_attr : public shadow_fixture_t {
  protected:
    struct stat attributes(const std::string& path) const {
        struct stat st {};
        EXPECT_EQ(vm_proxy_getattr(path, shadow_path(path), true, &st), nullptr) << path;
        return st;
    }
};

TEST_F(vm_proxy_attr, TouchKeepsSizeRulesAndTheCountOfBlocks) {
    const std::string disk = expose_disk("a-flat.vmdk");
    struct statvfs totals {};
    ASSERT_EQ(vm_proxy_statvfs(shadow_, &totals), nullptr);
    EXPECT_EQ(totals.f_blocks, disk_size / totals.f_bsize);
    EXPECT_EQ(totals.f_bfree + totals.f_bavail + totals.f_ffree + totals.f_favail, 0U);

    // An extent file larger than its descriptor says is exported whole, but not read through the optimised path.
    make_file("device", std::string(2 * disk_size, 'd'));
    expose_disk("a-flat.vmdk");
    EXPECT_EQ(attributes(disk).st_size, static_cast<off_t>(2 * disk_size));
    std::unique_ptr<vm_proxy_header_t> header;
    ASSERT_EQ(vm_proxy_read_header(shadow_path(disk), &header), nullptr);
    EXPECT_EQ(header->can_optimize, 0U);
    EXPECT_EQ(get_fs_blocks_used(), static_cast<std::int64_t>(2 * disk_size / totals.f_bsize));

    // A smaller one reports the descriptor's size.
    make_file("device", "d");
    expose_disk("a-flat.vmdk");
    EXPECT_EQ(attributes(disk).st_size, static_cast<off_t>(disk_size));
    EXPECT_EQ(get_fs_blocks_used(), static_cast<std::int64_t>(disk_size / totals.f_bsize));

    vm_proxy_touch_t touch;
    touch.type = VM_PROXY_HEADER_VMX;
    touch.link_path = std::string(512, 'l');
    EXPECT_EQ(vm_proxy_touch_check(touch), nullptr);
    touch.link_path += 'l';
    EXPECT_EQ(vm_proxy_touch_check(touch)->number, EINVAL);
    touch.link_path.clear();
    touch.vm_uuid = std::string(64, 'u');
    EXPECT_EQ(vm_proxy_touch_check(touch)->number, EINVAL);
    touch.vm_uuid.clear();
    touch.stat_path = root_ + "/none";
    EXPECT_EQ(vm_proxy_touch(shadow_path("/none"), touch)->number, ENOENT);
    ASSERT_EQ(mkfifo(touch.stat_path.c_str(), 0600), 0);
    EXPECT_EQ(vm_proxy_touch(shadow_path("/none"), touch)->number, EINVAL);
}

TEST_F(vm_proxy_attr, TouchWritesOnlyWhatChanges) {
    const auto inode = [this](const std::string& path) {
        struct stat st {};
        EXPECT_EQ(stat(shadow_path(path).c_str(), &st), 0);
        return st.st_ino;
    };
    const std::string disk = expose_disk("a-flat.vmdk");
    const std::int64_t blocks = get_fs_blocks_used();
    std::filesystem::create_hard_link(shadow_path(disk), root_ + "/keeps-the-inode");
    const ino_t first = inode(disk);
    expose_disk("a-flat.vmdk");
    EXPECT_EQ(inode(disk), first);
    EXPECT_EQ(get_fs_blocks_used(), blocks);

    expose_disk("a-flat.vmdk", "hv2");
    EXPECT_NE(inode(disk), first);
    std::unique_ptr<vm_proxy_header_t> header;
    ASSERT_EQ(vm_proxy_read_header(shadow_path(disk), &header), nullptr);
    EXPECT_STREQ(header->hv_name, "hv2");
    EXPECT_EQ(get_fs_blocks_used(), blocks);
}

TEST_F(vm_proxy_attr, OnlyTheResetForgetsAnError) {
    error_hash_save("/e-flat.vmdk", errdesc_set(EIO));
    EXPECT_EQ(vm_proxy_setxattr("/e-flat.vmdk", "user.err_num"), nullptr);
    EXPECT_NE(error_hash_get("/e-flat.vmdk"), nullptr);
    EXPECT_EQ(vm_proxy_setxattr("/e-flat.vmdk", "user.err_reset"), nullptr);
    EXPECT_EQ(error_hash_get("/e-flat.vmdk"), nullptr);
}

}  // namespace
}  // namespace mirador
