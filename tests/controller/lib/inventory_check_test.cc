// SPDX-License-Identifier: Apache-2.0
#include "controller/lib/inventory_check.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "lib/tool_paths.h"
#include "tests/lib/error_number.h"

namespace mirador {
namespace {

ks_vm_config_t good_vm() {
    return {.hv_hostname = "esx-1.example.com",
            .vm_name = "web",
            .uuid = "423a-1",
            .vmx_path = "web/web.vmx",
            .datastore_name = "datastore1 (1)"};
}

ks_vdisk_t good_disk() {
    const std::string dir = "/vmfs/volumes/ds/web/";
    return {.name = "web.vmdk",
            .base_ascii_path = dir + "web.vmdk",
            .base_extent_path = dir + "web-flat.vmdk",
            .head_ascii_path = dir + "web-000001.vmdk",
            .head_extent_path = dir + "web-000001-delta.vmdk"};
}

const std::vector<std::string> no_names = {"", ".", "..", "a/b", "/", "../x"};

TEST(inventory_check, HostNames) {
    const auto check = [](const ks_string_t& name) {
        return number_of(ks_hypervisor_config_check({.hostname = name}));
    };
    for (const char* good : {"esx", "10.0.0.1", "fe80::1", "h\u00f6st", "[a]"})
        EXPECT_EQ(check(good), 0) << good;
    for (const std::string& bad : no_names)
        EXPECT_EQ(check(bad), EINVAL) << bad;
    for (const char* bad : {".uuid", "a b", "a\n", "a?x=1", "a&b", "a#b", "a%2fb", "a+b", "\x7f"})
        EXPECT_EQ(check(bad), EINVAL) << bad;
    EXPECT_EQ(check(std::nullopt), EINVAL);
    EXPECT_EQ(check(std::string(255, 'h')), 0);
    EXPECT_EQ(check(std::string(256, 'h')), ENAMETOOLONG);
}

TEST(inventory_check, Folders) {
    const auto check = [](const ks_string_t& name, const ks_string_t& uuid) {
        return number_of(ks_vm_folder_check({.fldr_name = name, .fldr_uuid = uuid}));
    };
    EXPECT_EQ(check("My VMs & more", "1"), 0);
    EXPECT_EQ(check("...", "1"), 0);
    for (const std::string& bad : no_names)
        EXPECT_EQ(check(bad, "1"), EINVAL) << bad;
    EXPECT_EQ(check(".uuid", "1"), EINVAL);
    EXPECT_EQ(check("a", std::nullopt), EINVAL);
    EXPECT_EQ(check(std::string(256, 'f'), "1"), ENAMETOOLONG);
}

struct vm_case_t {
    const char* what;
    errnum_t number;
    std::function<void(ks_vm_config_t&)> change;
};

TEST(inventory_check, VirtualMachines) {
    const std::string cache = tool_paths().cache_dir + "/ds/";
    const auto vmx_in_cache = [&](std::size_t length) {
        return "d/" + std::string(250, 'x') + "/" + std::string(length - cache.size() - 257, 'y') + ".vmx";
    };
    const vm_case_t cases[] = {
        {"good", 0, [](auto&) {}},
        {"encoded name fits", 0, [](auto& vm) { vm.vm_name = std::string(250, 'a') + ":bc"; }},
        {"encoded name too long", ENAMETOOLONG, [](auto& vm) { vm.vm_name = std::string(251, 'a') + ":bc"; }},
        {"full stop at the end", ENAMETOOLONG, [](auto& vm) { vm.vm_name = std::string(254, 'a') + "."; }},
        {"no uuid", EINVAL, [](auto& vm) { vm.uuid.reset(); }},
        {"uuid is a path", EINVAL, [](auto& vm) { vm.uuid = "../1"; }},
        {"uuid breaks a query", EINVAL, [](auto& vm) { vm.uuid = "1&x=2"; }},
        {"uuid of 63", 0, [](auto& vm) { vm.uuid = std::string(63, '1'); }},
        {"uuid of 64", ENAMETOOLONG, [](auto& vm) { vm.uuid = std::string(64, '1'); }},
        {"host", EINVAL, [](auto& vm) { vm.hv_hostname = ".."; }},
        {"folder", EINVAL, [](auto& vm) { vm.fldr_name = "a/../../b"; }},
        {"datastore uuid", EINVAL, [](auto& vm) { vm.datastore_uuid = "a/b"; }},
        {"no VMX", EINVAL, [](auto& vm) { vm.vmx_path.reset(); }},
        {"a template's", EINVAL, [](auto& vm) { vm.vmx_path = "web/web.vmtx"; }},
        {"template", 0,
         [](auto& vm) {
             vm.vmx_path = "web/web.vmtx";
             vm.is_template = true;
         }},
        {"climbs", EINVAL, [](auto& vm) { vm.vmx_path = "web/../../../../etc/x.vmx"; }},
        {"dots that do not climb", 0, [](auto& vm) { vm.vmx_path = "..web/a..b/web...vmx"; }},
        {"cache path of 512", 0,
         [&](auto& vm) {
             vm.datastore_name = "ds";
             vm.vmx_path = vmx_in_cache(512);
         }},
        {"cache path of 513", ENAMETOOLONG,
         [&](auto& vm) {
             vm.datastore_name = "ds";
             vm.vmx_path = vmx_in_cache(513);
         }},
        {"snapshot directory", ENAMETOOLONG, [](auto& vm) { vm.snapshot_directory = std::string(4000, 'd'); }},
    };
    for (const vm_case_t& c : cases) {
        ks_vm_config_t vm = good_vm();
        c.change(vm);
        EXPECT_EQ(number_of(ks_vm_config_check(vm)), c.number) << c.what;
    }
    ks_vm_config_t vm = good_vm();
    vm.uuid.reset();
    EXPECT_STREQ(ks_vm_config_check(vm)->string, "Virtual machine 'web' refused, uuid missing");
}

TEST(inventory_check, Disks) {
    EXPECT_EQ(number_of(ks_vdisk_check(good_disk())), 0);
    for (const auto path : {&ks_vdisk_t::base_ascii_path, &ks_vdisk_t::base_extent_path, &ks_vdisk_t::head_ascii_path,
                            &ks_vdisk_t::head_extent_path}) {
        ks_vdisk_t disk = good_disk();
        for (const char* bad : {"", "/vmfs/volumes/ds/", "/vmfs/volumes/ds/..", "."}) {
            disk.*path = bad;
            EXPECT_EQ(number_of(ks_vdisk_check(disk)), EINVAL) << bad;
        }
        (disk.*path).reset();
        EXPECT_EQ(number_of(ks_vdisk_check(disk)), EINVAL);
        disk.*path = "/d/" + std::string(256, 'd');
        EXPECT_EQ(number_of(ks_vdisk_check(disk)), ENAMETOOLONG);
        disk.*path = std::string(5000, '/') + "d";
        EXPECT_EQ(number_of(ks_vdisk_check(disk)), ENAMETOOLONG);
    }
    ks_vdisk_t disk = good_disk();
    disk.head_ascii_path = "../other/" + std::string(503, '/') + "d";
    EXPECT_EQ(number_of(ks_vdisk_check(disk)), ENAMETOOLONG);
    disk.head_ascii_path = "../other/d.vmdk";  // only read, and where it leads is looked at when it is opened
    EXPECT_EQ(number_of(ks_vdisk_check(disk)), 0);
    disk.base_ascii_path = "/vmfs/volumes/ds/../../../etc/d.vmdk";
    EXPECT_EQ(number_of(ks_vdisk_check(disk)), EINVAL);
}

TEST(inventory_check, CountsTheDisksThatAreExported) {
    list_t<ks_vdisk_t> disks;
    for (int i = 0; i < 184; i++)
        list_add(disks, good_disk());
    list_add(disks, ks_vdisk_t{.independent = true});
    EXPECT_EQ(number_of(ks_vdisk_count_check(disks, "vm")), 0);
    list_add(disks, good_disk());
    EXPECT_EQ(number_of(ks_vdisk_count_check(disks, "vm")), EINVAL);
}

}  // namespace
}  // namespace mirador
