// SPDX-License-Identifier: Apache-2.0
#include "controller/lib/kestrel_types.h"

#include <gtest/gtest.h>

#include "controller/lib/json_records.h"

namespace mirador {
namespace {

TEST(ks_vm_config_diff, PassesOverTheRest) {
    const ks_vm_config_t vm = {.vm_name = "vm", .snap_suffix = "s", .datacenter = "dc"};
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
