// SPDX-License-Identifier: Apache-2.0
#include "controller/lib/kestrel_types.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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
    const auto expect_seen = [&vm](const auto& change) {
        ks_vm_config_t other = vm;
        change(other);
        EXPECT_TRUE(ks_vm_config_diff(&vm, &other));
        EXPECT_TRUE(ks_vm_config_diff(&other, &vm));
    };
    using vm_t = ks_vm_config_t;
    for (const auto text : {&vm_t::hv_hostname, &vm_t::vm_name, &vm_t::uuid, &vm_t::fldr_name, &vm_t::vmx_path,
                            &vm_t::datastore_path, &vm_t::datastore_uuid, &vm_t::datastore_name, &vm_t::host_system,
                            &vm_t::resource_pool, &vm_t::datacenter, &vm_t::vm_folder, &vm_t::error})
        expect_seen([text](vm_t& other) { other.*text = "x"; });
    for (const auto flag : {&vm_t::is_template, &vm_t::controller_export_enabled, &vm_t::discover_enabled,
                            &vm_t::alerts_enabled, &vm_t::quiesce_enabled, &vm_t::use_cbt, &vm_t::cbt_reset_pending})
        expect_seen([flag](vm_t& other) { other.*flag = true; });
    for (const auto time : {&vm_t::cbt_reset_time, &vm_t::cbt_reset_time_prev, &vm_t::last_discover_time})
        expect_seen([time](vm_t& other) { other.*time = 1; });
    expect_seen([](vm_t& other) { other.snapshot_directory = ""; });
    expect_seen([](vm_t& other) { other.snap_exists = -1; });
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
