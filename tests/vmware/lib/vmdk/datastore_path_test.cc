// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmdk/datastore_path.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lib/file_io.h"
#include "tests/lib/temp_dir.h"
#include "vmware/lib/vmdk/datastore_containment.h"
#include "vmware/lib/vmdk/vmdk_names.h"

namespace mirador {
namespace {

namespace fs = std::filesystem;

// Stands for the machine: the direct mount root is a directory of the test, the other one is not touched.
class datastore_test : public testing::Test {
  protected:
    datastore_test() { datastore_mount_points = {make_directory("direct"), "/vmfs/volumes"}; }
    ~datastore_test() override { datastore_mount_points = deployed; }

    std::string make_directory(const std::string& name) const {
        fs::create_directories(temp / name);
        return temp / name;
    }

    const std::vector<std::string> deployed = datastore_mount_points;
    temp_dir_t temp;
};

TEST(datastore_path, PathsAreSplit) {
    struct {
        const char* path;
        bool is_fs_path;
        const char* rest;
        const char* ds_name;
        const char* dir;
        const char* base;
    } const cases[] = {
        {"/vmfs/volumes/ds1/vm1/vm1.vmdk", true, "ds1/vm1/vm1.vmdk", "ds1", "vm1", "vm1.vmdk"},
        {"/vmfs.direct/volumes/ds1/vm1/f", false, "ds1/vm1/f", "ds1", "vm1", "f"},
        {"/vmfs/volumes/ds1/f.vmdk", true, "ds1/f.vmdk", "ds1", ".", "f.vmdk"},
        {"/vmfs/volumes/ds1", true, "ds1", "ds1", "", ""},
        {"/vmfs/volumes/ds1/vm1/", true, "ds1/vm1/", "ds1", ".", "vm1"},
        {"/vmfs/volumes/", true, "", "", "", ""},
        {"/vmfs/volumesX/a", false, "X/a", "X", ".", "a"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.path);
        const std::string path = c.path;
        EXPECT_EQ(is_datastore_fs_path(path), c.is_fs_path);
        std::string_view rest;
        ASSERT_EQ(remove_datastore_mount_point(path, &rest), nullptr);
        EXPECT_EQ(rest, c.rest);
        std::string ds_name, dir, base;
        ASSERT_EQ(parse_datastore_path(path, &ds_name, &dir, &base), nullptr);
        EXPECT_EQ(ds_name, c.ds_name);
        EXPECT_EQ(dir, c.dir);
        EXPECT_EQ(base, c.base);
        EXPECT_EQ(parse_datastore_path(path, &ds_name, nullptr, nullptr), nullptr);
    }
}

TEST_F(datastore_test, ThePreferredRootIsTheFirstThatHasTheDatastore) {
    make_directory("direct/ds1");
    write_file(temp / "direct/file", "not a datastore");
    const std::string direct = temp / "direct";
    const std::pair<std::string, std::string> cases[] = {
        {"/vmfs/volumes/ds1/vm/f", direct + "/ds1/vm/f"},     {"/vmfs/volumes/ds1", direct + "/ds1"},
        {"/vmfs/volumes/absent/f", "/vmfs/volumes/absent/f"}, {"/vmfs/volumes/file/f", "/vmfs/volumes/file/f"},
        {direct + "/ds1/vm/f", direct + "/ds1/vm/f"},
    };
    for (const auto& [path, expected] : cases) {
        std::string preferred;
        ASSERT_EQ(get_preferred_datastore_path(path, &preferred), nullptr) << path;
        EXPECT_EQ(preferred, expected);
    }
}

// Two roots, one of them a link; "linked" is a datastore mounted elsewhere.
class containment_test : public datastore_test {
  protected:
    containment_test() {
        for (const char* name : {"direct/ds1/vm", "real_root/ds2", "elsewhere/store", "etc", "home"})
            make_directory(name);
        fs::create_symlink("real_root", temp / "volumes");
        datastore_mount_points = {temp / "direct", temp / "volumes"};
        write_file(temp / "elsewhere/store/far.vmdk", "text");
        fs::create_symlink(temp / "elsewhere/store", temp / "real_root/linked");
        secret = write_file(temp / "etc/shadow", "secret");
        descriptor = write_file(temp / "direct/ds1/vm/disk.vmdk", "text");
    }

    std::string outcome(const std::string& by, const std::string& path) const {
        const errdesc_t* e = datastore_check_contained(by, path);
        return e == nullptr ? "allowed" : e->string;
    }

    std::string secret, descriptor;
};

TEST_F(containment_test, WhatIsOpenCountsAndNotItsName) {
    const std::string path = temp / "direct/ds1/vm/changing.vmdk";
    fs::create_symlink(secret, path);
    const unique_fd outside(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    fs::remove(path);
    write_file(path, "text");
    const unique_fd inside(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(datastore_check_opened(path, inside.get(), path), nullptr);
    EXPECT_EQ(datastore_check_opened(path, outside.get(), path)->string, "Refused, outside every datastore: " + secret);
    EXPECT_EQ(datastore_check_opened(secret, outside.get(), path), nullptr) << "it is on no datastore by its name";
    EXPECT_EQ(datastore_check_opened(path, -1, path)->number, ENOENT);
    std::int64_t size = 0;
    fs::remove(path);
    fs::create_symlink(secret, path);
    EXPECT_EQ(vmdk_copy_descfiles(path, temp / "copy.vmdk", "a", "b", &size)->number, EINVAL);
    EXPECT_FALSE(fs::exists(temp / "copy.vmdk"));
}

TEST_F(containment_test, TheRuleHoldsForDescriptorsOnDatastoresOnly) {
    const std::string own = write_file(temp / "home/disk.vmdk", "text");
    fs::create_symlink(descriptor, temp / "home/link.vmdk");
    EXPECT_FALSE(is_on_datastore(own));
    EXPECT_FALSE(is_on_datastore(temp / "directory"));
    EXPECT_FALSE(is_on_datastore(temp / "direct"));
    EXPECT_TRUE(is_on_datastore(temp / "direct/ds1/absent"));
    EXPECT_TRUE(is_on_datastore(temp / "home/link.vmdk"));
    EXPECT_TRUE(is_on_datastore(temp / "elsewhere/store/far.vmdk"));
    EXPECT_EQ(outcome(own, secret), "allowed");
    const std::string outside = "Refused, outside every datastore: " + secret;
    EXPECT_EQ(outcome(temp / "home/link.vmdk", secret), outside);
    // A descriptor that leads out by a link still lies where its name says.
    fs::create_symlink(secret, temp / "direct/ds1/vm/link-out");
    EXPECT_EQ(outcome(temp / "direct/ds1/vm/link-out", secret), outside);
}

}  // namespace
}  // namespace mirador
