// SPDX-License-Identifier: Apache-2.0
#include "controller/lib/kestrel_types.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <vector>

#include "controller/lib/json_records.h"
#include "lib/file_io.h"

namespace mirador {
namespace {

using testing::HasSubstr;
using testing::Not;

ks_vm_config_t full_vm() {
    return {.hv_hostname = "esx",
            .vm_name = "vm",
            .uuid = "u",
            .fldr_name = "f",
            .snap_suffix = "s",
            .vmx_path = "vm/vm.vmx",
            .snapshot_directory = "snap",
            .datastore_name = "ds",
            .datastore_path = "path",
            .datastore_uuid = "dsu",
            .datacenter = "dc",
            .vm_folder = "vf",
            .host_system = "host",
            .resource_pool = "pool",
            .error = "none"};
}

template <typename dump_t>
std::string dumped(const dump_t& dump) {
    char* text = nullptr;
    std::size_t size = 0;
    file_ptr stream(open_memstream(&text, &size));
    dump(stream.get());
    stream.reset();
    const std::unique_ptr<char, decltype(&std::free)> owned(text, std::free);
    return {text, size};
}

TEST(ks_vm_config_diff, SeesWhatConcernsTheExport) {
    const ks_vm_config_t vm = full_vm();
    const std::vector<std::function<void(ks_vm_config_t&)>> changes = {
        [](ks_vm_config_t& v) { v.hv_hostname = "x"; },
        [](ks_vm_config_t& v) { v.vm_name = "x"; },
        [](ks_vm_config_t& v) { v.uuid = "x"; },
        [](ks_vm_config_t& v) { v.fldr_name = "x"; },
        [](ks_vm_config_t& v) { v.vmx_path = "x"; },
        [](ks_vm_config_t& v) { v.datastore_path = "x"; },
        [](ks_vm_config_t& v) { v.datastore_uuid = "x"; },
        [](ks_vm_config_t& v) { v.datastore_name = "x"; },
        [](ks_vm_config_t& v) { v.host_system = "x"; },
        [](ks_vm_config_t& v) { v.resource_pool = "x"; },
        [](ks_vm_config_t& v) { v.datacenter = "x"; },
        [](ks_vm_config_t& v) { v.vm_folder = "x"; },
        [](ks_vm_config_t& v) { v.error = "x"; },
        [](ks_vm_config_t& v) { v.snapshot_directory = ""; },
        [](ks_vm_config_t& v) { v.is_template = true; },
        [](ks_vm_config_t& v) { v.controller_export_enabled = true; },
        [](ks_vm_config_t& v) { v.discover_enabled = true; },
        [](ks_vm_config_t& v) { v.alerts_enabled = true; },
        [](ks_vm_config_t& v) { v.quiesce_enabled = true; },
        [](ks_vm_config_t& v) { v.use_cbt = true; },
        [](ks_vm_config_t& v) { v.cbt_reset_pending = true; },
        [](ks_vm_config_t& v) { v.cbt_reset_time = 1; },
        [](ks_vm_config_t& v) { v.cbt_reset_time_prev = 1; },
        [](ks_vm_config_t& v) { v.last_discover_time = 1; },
        [](ks_vm_config_t& v) { v.snap_exists = -1; },
    };
    for (std::size_t i = 0; i < changes.size(); i++) {
        ks_vm_config_t other = vm;
        changes[i](other);
        EXPECT_TRUE(ks_vm_config_diff(&vm, &other)) << i;
        EXPECT_TRUE(ks_vm_config_diff(&other, &vm)) << i;
    }
}

TEST(ks_vm_config_diff, PassesOverTheRest) {
    const ks_vm_config_t vm = full_vm();
    ks_vm_config_t other = vm;
    EXPECT_FALSE(ks_vm_config_diff(&vm, &other));
    other.snap_suffix = "x";
    other.export_enabled = true;
    other.datacenter.reset();
    EXPECT_FALSE(ks_vm_config_diff(&vm, &other));
    EXPECT_FALSE(ks_vm_config_diff(&other, &vm));
}

TEST(ks_copy, RefusesADestinationThatIsNotEmpty) {
    ks_hypervisor_config_t hvc;
    const ks_hypervisor_config_t empty_hvc;
    hvc.password = secret_t("p");
    EXPECT_DEATH(ks_hypervisor_config_copy(&hvc, &empty_hvc), "dst->password == \\(\\(void \\*\\)0\\)");
    ks_vm_config_t vm = full_vm();
    const ks_vm_config_t source = full_vm();
    EXPECT_DEATH(ks_vm_config_copy(&vm, &source), "dst->hv_hostname == ");
    ks_vm_config_free(&vm);
    ks_vm_config_copy(&vm, &source);
    EXPECT_FALSE(ks_vm_config_diff(&vm, &source));
    EXPECT_EQ(vm.snap_suffix, "s");

    ks_vdisk_t disk = {.name = "old", .changeid_prev = "old"};
    const ks_vdisk_t other = {.name = "new"};
    ks_vdisk_copy(&disk, &other);
    EXPECT_EQ(disk.name, "new");
    EXPECT_EQ(disk.changeid_prev, std::nullopt);
}

TEST(ks_copy, GivesADatastoreAListOfItsOwn) {
    ks_ds_config_t source;
    source.name = "ds";
    std::unique_ptr<ks_ds_config_t> copy;
    ASSERT_EQ(ks_ds_config_copy(&source, &copy), nullptr);
    ASSERT_NE(copy->paths, nullptr);
    EXPECT_TRUE(list_empty(*copy->paths));

    source.paths = list_new<std::string>();
    list_add(*source.paths, std::string("/a"));
    list_add(*source.paths, std::string("/b"));
    ASSERT_EQ(ks_ds_config_copy(&source, &copy), nullptr);
    ks_ds_config_free(&source);
    EXPECT_EQ(copy->name, "ds");
    EXPECT_EQ(list_pop(*copy->paths), "/a");
    EXPECT_EQ(list_pop(*copy->paths), "/b");
}

TEST(ks_hypervisor_type, NamesAreExact) {
    EXPECT_EQ(ks_hypervisor_get_type("ESXi"), HYPERVISOR_TYPE_VMWARE_ESXi);
    EXPECT_EQ(ks_hypervisor_get_type("esx"), HYPERVISOR_TYPE_UNKNOWN);
    EXPECT_STREQ(ks_hypervisor_get_type_str(HYPERVISOR_TYPE_VMWARE_VCENTER), "vCenter");
    EXPECT_STREQ(ks_hypervisor_get_type_str(static_cast<ks_hypervisor_type_t>(7)), "(unknown)");
}

TEST(ks_dump, SaysWhatIsAbsent) {
    const ks_hypervisor_config_t hvc = {
        .hostname = "h", .login_name = "l", .password = secret_t("p"), .hv_port = 0xffffffff, .hv_data_port = 902};
    EXPECT_EQ(dumped([&](std::FILE* stream) { ks_hypervisor_config_dump(&hvc, stream); }),
              "hvc->hostname     = h\nhvc->login_name   = l\nhvc->password     = p\nhvc->hv_port      = -1\n"
              "hvc->hv_data_port = 902\nhvc->hv_type      = (null)\n");

    ks_vm_config_t vm;
    const auto dump_vm = [&](std::FILE* stream) { ks_vm_config_dump(&vm, stream); };
    EXPECT_THAT(dumped(dump_vm), HasSubstr("vmc->fldr_name = NULL\nvmc->snap_suffix = NULL\n"));
    EXPECT_THAT(dumped(dump_vm), Not(HasSubstr("datastore_path")));
    vm = full_vm();
    EXPECT_THAT(dumped(dump_vm), HasSubstr("vmc->datastore_path = path\nvmc->datastore_uuid = dsu\n"));

    const ks_vdisk_t disk = {.name = "d", .base_extent_path = "/x-flat", .base_extent_size = 7};
    const std::string disk_text = dumped([&](std::FILE* stream) { ks_vdisk_dump(&disk, stream); });
    EXPECT_THAT(disk_text, HasSubstr("\nvd->base_extent = /x-flat (7)\n"));
    EXPECT_THAT(disk_text, Not(HasSubstr("base_ascii")));
}

TEST(ks_vdisk_to_json_object, SendsNoPathsAndSizesAsText) {
    ks_vdisk_t disk = {.vhost_uuid = "u",
                       .name = "a/\"b\"",
                       .changeid_incr = "52/1",
                       .corcbt_size_percentage = 5,
                       .cbt_reset_time_vdisk = 1700000000,
                       .flat_file_size = 18446744073709551615ULL,
                       .head_ascii_path = "/h"};
    testing::internal::CaptureStderr();
    const json_ptr sent = ks_vdisk_to_json_object(&disk);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "warning: empty value for field \"changeid\"\n");
    EXPECT_STREQ(
        json_object_to_json_string_ext(sent.get(), JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE),
        R"({"vhost_uuid":"u","name":"a/\"b\"","changeid":"","changeid_incr":"52/1","corcbt_size_percentage":5,)"
        R"("cbt_reset_time_vdisk":1700000000,"flat_file_size":"18446744073709551615"})");
}

}  // namespace
}  // namespace mirador
