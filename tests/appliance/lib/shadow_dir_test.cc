// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/shadow_dir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "appliance/lib/shadow_names.h"
#include "appliance/lib/vm_proxy_header.h"
#include "tests/lib/error_number.h"
#include "tests/lib/temp_dir.h"

namespace mirador {
namespace {

namespace fs = std::filesystem;

void write_vmx_entry(const std::string& path, const char* hv_name, const char* vm_uuid = "") {
    vm_proxy_header_t header = vm_proxy_header_make(VM_PROXY_HEADER_VMX);
    std::strcpy(header.vm_uuid, vm_uuid);
    std::strcpy(header.hv_name, hv_name);
    ASSERT_EQ(vm_proxy_write_header(header, path), nullptr);
}

TEST(shadow_dir, DirectoriesThatCannotBeMadeAreErrors) {
    const temp_dir_t dir;
    const std::string vm = dir / "esx1/vm";
    ASSERT_EQ(shadow_make_dir(vm), nullptr);
    ASSERT_EQ(shadow_make_dir(vm), nullptr);
    struct stat st {};
    ASSERT_EQ(stat(vm.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777U, 0777U);

    write_file(dir / "file", "");
    fs::create_directory_symlink(dir.path(), dir / "link");
    EXPECT_EQ(number_of(shadow_make_dir(dir / "file")), ENOTDIR);
    EXPECT_EQ(number_of(shadow_make_dir(dir / "file/vm")), ENOTDIR);
    EXPECT_EQ(number_of(shadow_make_dir(dir / "link")), ENOTDIR);
    EXPECT_EQ(number_of(shadow_make_dir(dir / std::string(256, 'n'))), ENAMETOOLONG);
}

TEST(shadow_dir, LinksFollowTheirVm) {
    const temp_dir_t dir;
    std::string link;
    ASSERT_EQ(shadow_uuid_path(dir.path(), "564d-1", &link), nullptr);
    shadow_link_uuid(dir.path(), link, dir / "esx1/old");
    EXPECT_EQ(fs::read_symlink(link), dir / "esx1/old");
    shadow_link_uuid(dir.path(), link, dir / "esx1/new");
    EXPECT_EQ(fs::read_symlink(link), dir / "esx1/new");

    EXPECT_EQ(shadow_unlink_uuid(link, dir / "esx1/old"), nullptr);
    EXPECT_EQ(fs::read_symlink(link), dir / "esx1/new");
    EXPECT_EQ(shadow_unlink_uuid(link, dir / "esx1/new"), nullptr);
    EXPECT_FALSE(fs::is_symlink(link));
    EXPECT_EQ(shadow_unlink_uuid(link, dir / "esx1/new"), nullptr);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir / ".uuid"), {}), 0);
}

TEST(shadow_dir, OneHypervisorHasADirectory) {
    const temp_dir_t dir;
    const std::string vmx = dir / "Lab/vm/vm.vmx";
    const std::string link = dir / "uuid";
    const shadow_owner_t ours{.vm_name = "vm", .group = "Lab", .hv_hostname = "esx1"};

    ASSERT_EQ(check_naming_conflict(vmx, ours, ""), nullptr);  // nobody has it
    EXPECT_TRUE(fs::is_directory(dir / "Lab/vm"));
    EXPECT_FALSE(fs::is_symlink(link));
    write_vmx_entry(vmx, "esx1");
    ASSERT_EQ(check_naming_conflict(vmx, ours, link), nullptr);
    EXPECT_EQ(fs::read_symlink(link), dir / "Lab/vm");
    fs::remove(link);

    write_vmx_entry(vmx, "esx2");
    const errdesc_t* e = check_naming_conflict(vmx, ours, link);
    ASSERT_EQ(number_of(e), EINVAL);
    EXPECT_EQ(std::string(e->string),
              "Cannot assign two VMs with the same name (vm) into the same folder (Lab): attempted to add the VM of "
              "hypervisor esx1 to the folder which already contains the VM (same name) of hypervisor esx2.");
    EXPECT_FALSE(fs::is_symlink(link));

    shadow_owner_t moved = ours;  // the VM itself, from another hypervisor
    moved.vm_uuid = "564d";
    EXPECT_EQ(number_of(check_naming_conflict(vmx, moved, link)), EINVAL);
    write_vmx_entry(vmx, "esx2", "564d");
    EXPECT_EQ(check_naming_conflict(vmx, moved, link), nullptr);
    fs::remove(link);

    write_file(vmx, "garbage");
    EXPECT_EQ(check_naming_conflict(vmx, ours, ""), nullptr);
    EXPECT_EQ(check_naming_conflict("vm.vmx", ours, ""), nullptr);
    EXPECT_EQ(number_of(check_naming_conflict(vmx + "/vm/vm.vmx", ours, "")), ENOTDIR);
}

}  // namespace
}  // namespace mirador
