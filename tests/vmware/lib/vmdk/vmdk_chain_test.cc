// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmdk/vmdk_chain.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "lib/cor_string.h"
#include "tests/lib/error_number.h"
#include "tests/lib/temp_dir.h"
#include "tests/support/sparse_writer.h"
#include "vmware/lib/vmdk/datastore_path.h"
#include "vmware/lib/vmdk/vmdk_names.h"
#include "vmware/lib/vmdk/vmdk_open.h"

namespace mirador {
namespace {

using testing::HasSubstr;

class vmdk_chain : public testing::Test {
  protected:
    void TearDown() override { datastore_mount_points = {"/vmfs.direct/volumes", "/vmfs/volumes"}; }

    std::string write(const std::string& name, const std::string& parent_hint = "",
                      const std::string& parent_cid = "00000001") {
        descriptor_text_t text;
        text.extents = {"RW 8 FLAT \"" + name + "-flat.vmdk\" 0"};
        if (!parent_hint.empty()) {
            text.parent_hint = parent_hint;
            text.parent_cid = parent_cid;
        }
        text.write(dir_ / (name + ".vmdk"));
        return dir_ / (name + ".vmdk");
    }

    // Opens `path` and builds its chain; the error's text, or the chain's file names.
    std::string chain_of(const std::string& path, errnum_t number = EINVAL) {
        vmdkdesc_t disk;
        std::vector<vmdkdesc_t*> chain;
        errdesc_t* e = vmdk_open_checked(path, descriptor_role_t::head, &disk);
        if (e == nullptr)
            e = vmdk_get_ancestors(&disk, 0, &chain);
        if (e != nullptr) {
            EXPECT_EQ(e->number, number);
            EXPECT_TRUE(chain.empty());
            EXPECT_EQ(disk.parent, nullptr);
            return e->string;
        }
        EXPECT_EQ(chain.front(), &disk);
        std::string names;
        for (const vmdkdesc_t* member : chain)
            names += std::string(last_component(member->filename)) + " ";
        return names;
    }

    temp_dir_t dir_;
};

TEST_F(vmdk_chain, GoesFromTheDiskToItsBase) {
    write("base");
    write("middle", "base.vmdk");
    const std::string head = write("head", dir_ / "middle.vmdk");
    EXPECT_EQ(chain_of(head), "head.vmdk middle.vmdk base.vmdk ");

    std::string root;
    bool thin = true;
    ASSERT_EQ(vmdk_get_root_vmdk(head, &root, &thin), nullptr);
    EXPECT_EQ(root, dir_ / "base.vmdk");
    EXPECT_FALSE(thin);
}

TEST_F(vmdk_chain, MayHave127Parents) {
    write("disk0");
    for (int i = 1; i <= 128; ++i)
        write(cor_format("disk%d", i), cor_format("disk%d.vmdk", i - 1));
    EXPECT_THAT(chain_of(dir_ / "disk127.vmdk"), testing::StartsWith("disk127.vmdk disk126.vmdk "));
    EXPECT_EQ(chain_of(dir_ / "disk128.vmdk"),
              "Length of VMDK ancestors chain for " + (dir_ / "disk0.vmdk") + " has reached the limit (128)");
}

// Every extent takes a loop device, also when all lines name the same small file.
TEST_F(vmdk_chain, ExtentsAreCountedTogether) {
    const auto write_many = [&](const std::string& name, const std::string& parent_hint) {
        descriptor_text_t text;
        text.extents.assign(vmdkdesc_t::max_extents, "RW 8 SPARSE \"x\"");
        if (!parent_hint.empty()) {
            text.parent_hint = parent_hint;
            text.parent_cid = "00000001";
        }
        text.write(dir_ / (name + ".vmdk"));
    };
    write_many("disk0", "");
    for (int i = 1; i <= 4; ++i)
        write_many(cor_format("disk%d", i), cor_format("disk%d.vmdk", i - 1));
    EXPECT_EQ(chain_of(dir_ / "disk3.vmdk"), "disk3.vmdk disk2.vmdk disk1.vmdk disk0.vmdk ");
    EXPECT_EQ(chain_of(dir_ / "disk4.vmdk"), "More than 4096 extents in the chain down to " + (dir_ / "disk0.vmdk"));
}

TEST_F(vmdk_chain, Broken) {
    write("base");
    const std::string corrupted = " is corrupted";
    EXPECT_THAT(chain_of(write("no_id", "base.vmdk", "0")), HasSubstr(corrupted));
    descriptor_text_t text;
    text.parent_cid = "1234";
    text.extents = {"RW 8 FLAT \"x\" 0"};
    text.write(dir_ / "no_hint.vmdk");
    EXPECT_EQ(chain_of(dir_ / "no_hint.vmdk"), "VMDK descriptor for " + (dir_ / "no_hint.vmdk") + " (0) is corrupted");

    EXPECT_THAT(chain_of(write("orphan", "missing.vmdk"), ENOENT), HasSubstr(dir_ / "missing.vmdk"));
    EXPECT_THAT(chain_of(write("no_descriptor", "base-flat.vmdk"), ENOENT), HasSubstr("base-flat.vmdk"));
    write_file(dir_ / "base-flat.vmdk", std::string(4096, '\0'));
    testing::internal::CaptureStdout();
    EXPECT_THAT(chain_of(dir_ / "no_descriptor.vmdk", EAGAIN), HasSubstr("cannot parse the input file"));
    EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("No descriptor text: " + (dir_ / "base-flat.vmdk")));
    ASSERT_EQ(mkfifo((dir_ / "fifo").c_str(), 0600), 0);
    EXPECT_THAT(chain_of(write("piped", "fifo")), HasSubstr("fifo"));
}

TEST_F(vmdk_chain, ReturningToItself) {
    EXPECT_THAT(chain_of(write("self", "self.vmdk")), HasSubstr("returns to " + (dir_ / "self.vmdk")));
    write("a", "b.vmdk");
    write("b", "link.vmdk");
    std::filesystem::create_symlink("a.vmdk", dir_ / "link.vmdk");
    EXPECT_THAT(chain_of(dir_ / "a.vmdk"), HasSubstr("returns to "));
}

TEST_F(vmdk_chain, ParentWithAnotherContentIdIsLoggedAndUsed) {
    write("base");
    testing::internal::CaptureStdout();
    EXPECT_EQ(chain_of(write("stale", "base.vmdk", "deadbeef")), "stale.vmdk base.vmdk ");
    const std::string log = testing::internal::GetCapturedStdout();
    EXPECT_THAT(log, HasSubstr("WARNING"));
    EXPECT_THAT(log, HasSubstr("deadbeef"));
}

TEST_F(vmdk_chain, ParentOfADiskOnADatastoreMustLieOnOne) {
    std::filesystem::create_directories(dir_ / "volumes/ds1");
    std::filesystem::create_directories(dir_ / "volumes/ds2");
    datastore_mount_points = {dir_ / "volumes"};
    write("outside");
    write("volumes/ds2/base");
    const std::string hint = dir_ / "outside.vmdk";
    EXPECT_THAT(chain_of(write("volumes/ds1/escaped", hint)), HasSubstr(hint));
    EXPECT_EQ(chain_of(write("volumes/ds1/good", "../ds2/base.vmdk")), "good.vmdk base.vmdk ");
}

TEST_F(vmdk_chain, CopyOfADescriptorNamesTheNewExtent) {
    const std::string path = write("disk");
    const std::string copy = dir_ / "cache/vm/disk(1).vmdk";
    std::int64_t size = 0;
    const auto old = std::filesystem::last_write_time(path) - std::chrono::hours(24);
    std::filesystem::last_write_time(path, old);
    ASSERT_EQ(vmdk_copy_descfiles(path, copy, "disk-flat.vmdk", "disk(1)-flat.vmdk", &size), nullptr);
    std::string expected = read_file(path);
    expected.insert(expected.find("disk-flat") + 4, "(1)");
    EXPECT_EQ(read_file(copy), expected);
    EXPECT_EQ(size, static_cast<std::int64_t>(expected.size()));
    EXPECT_EQ(std::filesystem::last_write_time(copy), old);

    write_file(dir_ / "filled up.vmdk", read_file(path) + std::string(512, '\0'));
    ASSERT_EQ(vmdk_copy_descfiles(dir_ / "filled up.vmdk", copy, "disk-flat.vmdk", "disk(1)-flat.vmdk", &size),
              nullptr);
    EXPECT_EQ(read_file(copy), expected);

    write_file(dir_ / "binary.vmdk", std::string("KDMV\0\1", 6));
    EXPECT_EQ(vmdk_copy_descfiles(dir_ / "binary.vmdk", copy, "a", "b", &size)->number, EINVAL);
    write_file(dir_ / "file", "");
    EXPECT_EQ(std::string(vmdk_copy_descfiles(path, dir_ / "file/sub/x.vmdk", "a", "b", &size)->string),
              "Cannot make directory " + (dir_ / "file/sub"));
}

TEST(vmdk_rename, NextCounter) {
    const struct {
        const char* name;
        const char* renamed;
    } cases[] = {
        {"disk.vmdk", "disk(1).vmdk"},
        {"disk(0).vmdk", "disk(1).vmdk"},
        {"disk(4)-flat.vmdk", "disk(5)-flat.vmdk"},
        {"/vm/my disk-rdm.vmdk", "/vm/my disk(1)-rdm.vmdk"},
        {"DISK-FLAT.VMDK", "DISK(1)-FLAT.vmdk"},
        {"disk()-flat.vmdk", "disk(1)-flat.vmdk"},
        {"disk(2147483647).vmdk", nullptr},
        {"disk.vmx", nullptr},
        {"", nullptr},
    };
    for (const auto& c : cases) {
        std::string name = c.name;
        const errdesc_t* e = vmdk_rename(&name);
        if (c.renamed != nullptr) {
            EXPECT_EQ(e, nullptr) << c.name;
            EXPECT_EQ(name, c.renamed);
        } else {
            ASSERT_EQ(number_of(e), EINVAL) << c.name;
            EXPECT_EQ(name, c.name);
        }
    }
}

}  // namespace
}  // namespace mirador
