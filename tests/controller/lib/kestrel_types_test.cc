// SPDX-License-Identifier: Apache-2.0
#include "controller/lib/kestrel_types.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <vector>

#include "controller/lib/json_records.h"

namespace mirador {
namespace {

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
