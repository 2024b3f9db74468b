// SPDX-License-Identifier: Apache-2.0
#include "controller/lib/json_parse.h"

#include <gmock/gmock.h>

#include <functional>
#include <limits>

#include "controller/lib/json_records.h"
#include "tests/lib/error_number.h"

namespace mirador {
namespace {

using testing::StartsWith;

ks_vm_config_t vm_of(const std::string& text) {
    list_t<ks_vm_config_t> list;
    int n_added = -1;
    EXPECT_EQ(json_parse_vm_config(text, &list, &n_added), nullptr);
    EXPECT_EQ(n_added, 1) << text;
    return list_pop(list).value_or(ks_vm_config_t());
}

ks_vdisk_t disk_of(const std::string& members) {
    list_t<ks_vdisk_t> list;
    EXPECT_EQ(json_parse_vdisk(R"({"name":"d",)" + members + "}", true, &list), nullptr);
    return list_pop(list).value_or(ks_vdisk_t());
}

// The members that no test of the inventory sends.
TEST(json_parse_vm, TakesEachFieldFromItsMember) {
    const ks_vm_config_t vm =
        vm_of(R"({"snapshot_directory":"sd","datastore_path":"dp","datastore_uuid":"du","datacenter":"dc",)"
              R"("vm_folder":"vf","vmx_path":"a.b/x.vmtx","controller_export_enabled":0,"export_enabled":0,)"
              R"("discover_enabled":2,"alerts_enabled":0,"quiesce_enabled":"1","error":"e"})");
    EXPECT_EQ(vm.snapshot_directory, "sd");
    EXPECT_EQ(vm.datastore_path, "dp");
    EXPECT_EQ(vm.datastore_uuid, "du");
    EXPECT_EQ(vm.datacenter, "dc");
    EXPECT_EQ(vm.vm_folder, "vf");
    EXPECT_TRUE(vm.is_template);
    EXPECT_FALSE(vm.controller_export_enabled || vm.export_enabled || vm.alerts_enabled);
    EXPECT_TRUE(vm.discover_enabled && vm.quiesce_enabled);
    EXPECT_EQ(vm.error, "e");
}

TEST(json_parse_vm, GivesWhatWasNotSentItsDefault) {
    for (const char* text : {R"({"x":1})", R"([{"uuid":null,"export_enabled":null,"vmx_path":null}])"}) {
        const ks_vm_config_t vm = vm_of(text);
        EXPECT_EQ(vm.uuid, std::nullopt);
        EXPECT_EQ(vm.last_discover_time, 0xffffffffU);
        EXPECT_TRUE(vm.controller_export_enabled && vm.export_enabled && vm.discover_enabled && vm.alerts_enabled);
        EXPECT_FALSE(vm.is_template || vm.quiesce_enabled || vm.use_cbt || vm.cbt_reset_pending);
        EXPECT_EQ(vm.snap_exists, -1);
    }
    EXPECT_FALSE(vm_of(R"({"use_cbt":2,"cbt_reset_pending":-1})").use_cbt);
    for (const char* path : {"a.vmx", "a.vmtx.vmx", "vmtx", "a.VMTX", ""})
        EXPECT_FALSE(vm_of(std::string(R"({"vmx_path":")") + path + "\"}").is_template) << path;
}

TEST(json_parse_vm, TextsKeepTheirBytesUpToAZero) {
    EXPECT_EQ(vm_of(R"({"name":"\u00e9 \ud83d\ude00\/\n"})").vm_name, "\u00e9 \U0001f600/\n");
    EXPECT_EQ(vm_of("{\"name\":\"\xff\xfe\"}").vm_name, "\xff\xfe");
    EXPECT_EQ(vm_of(R"({"name":"..\u0000/etc"})").vm_name, "..");
    EXPECT_EQ(vm_of(R"({"name":17})").vm_name, "17");
}

TEST(json_parse_vdisk, ClampsThePercentage) {
    struct case_t {
        const char* member;
        std::uint32_t percent;
    };
    for (const auto& [member, percent] : {case_t{R"("x":1)", 5},
                                          {R"("corcbt_size_percentage":-1)", 5},
                                          {R"("corcbt_size_percentage":0)", 5},
                                          {R"("corcbt_size_percentage":1)", 1},
                                          {R"("corcbt_size_percentage":"40")", 40},
                                          {R"("corcbt_size_percentage":100)", 100},
                                          {R"("corcbt_size_percentage":101)", 100},
                                          {R"("corcbt_size_percentage":99999999999)", 100}})
        EXPECT_EQ(disk_of(member).corcbt_size_percentage, percent) << member;
}

TEST(json_parse_vdisk, TakesEachFieldFromItsMember) {
    const ks_vdisk_t disk =
        disk_of(R"("base_ascii_size":1,"base_extent_size":"2","head_ascii_size":3,"head_extent_size":4,)"
                R"("flat_file_size":"1099511627776","independent":1,"thin_provisioned":2)");
    EXPECT_EQ(disk.base_ascii_size, 1U);
    EXPECT_EQ(disk.base_extent_size, 2U);
    EXPECT_EQ(disk.head_ascii_size, 3U);
    EXPECT_EQ(disk.head_extent_size, 4U);
    EXPECT_EQ(disk.flat_file_size, 1099511627776U);
    EXPECT_TRUE(disk.independent);
    EXPECT_FALSE(disk.thinprovisioned);

    const ks_vdisk_t bare = disk_of(R"("independent":4294967297)");
    EXPECT_FALSE(bare.independent);
    EXPECT_EQ(bare.flat_file_size, 0U);
    EXPECT_EQ(bare.cbt_reset_time_vdisk, 0U);
    EXPECT_EQ(bare.base_extent_size, std::numeric_limits<std::uint64_t>::max());
}

TEST(json_parse_vdisk, LeavesOutTheNamelessAndCompanions) {
    const std::string text = R"([{"name":"a.vmdk"},{"name":"a-corcbt.vmdk"},{"x":1},42,[],{"name":"corcbt."}])";
    list_t<ks_vdisk_t> without;
    ASSERT_EQ(json_parse_vdisk(text, false, &without), nullptr);
    EXPECT_EQ(list_count(without), 2);
    list_t<ks_vdisk_t> with;
    ASSERT_EQ(json_parse_vdisk(text, true, &with), nullptr);
    EXPECT_EQ(list_count(with), 3);
}

TEST(json_parse, OneNullHarmsNoOtherRecord) {
    list_t<ks_vm_folder_t> folders;
    testing::internal::CaptureStdout();
    ASSERT_EQ(json_parse_folders(R"([null,{"name":"a","uuid":"1","numVms":2},null,{},17,{"name":"b"}])", &folders),
              nullptr);
    EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::HasSubstr("left out 2 null of 6 elements"));
    ASSERT_EQ(list_count(folders), 2);
    const auto first = list_pop(folders);
    EXPECT_EQ(first->fldr_name, "a");
    EXPECT_EQ(first->fldr_uuid, "1");
    EXPECT_EQ(first->numVMs, 2U);
    EXPECT_EQ(list_pop(folders)->numVMs, 0xffffffffU);
    EXPECT_DEATH(json_to_folder(nullptr), "jo_elem != \\(\\(void \\*\\)0\\)");
}

TEST(json_parse, TellsWhatIsNoReply) {
    struct case_t {
        std::string text;
        const char* error;
    };
    const std::string deep(40, '[');
    const std::string deep_end(40, ']');
    for (const case_t& reply : {case_t{"", "couldn't parse json_string"},
                                {"<html>", "couldn't parse json_string"},
                                {R"([{"name":"a"},)", "couldn't parse json_string"},
                                {"null", "couldn't parse json_string"},
                                {deep + deep_end, "couldn't parse json_string"},
                                {"42", "unknown json_type"},
                                {"\"text\"", "unknown json_type"},
                                {"true", "unknown json_type"}}) {
        const std::string& text = reply.text;
        list_t<ks_hypervisor_config_t> hypervisors;
        list_t<ks_vm_config_t> vms;
        list_t<ks_vdisk_t> disks;
        int n_added = 0;
        for (const std::function<errdesc_t*()>& parse : {
                 std::function<errdesc_t*()>([&] { return json_parse_hv_config(text, &hypervisors, &n_added); }),
                 {[&] { return json_parse_vm_config(text, &vms, &n_added); }},
                 {[&] { return json_parse_vdisk(text, true, &disks); }},
             }) {
            const errdesc_t* e = parse();
            ASSERT_EQ(number_of(e), ERR_JSON_PARSE_ERROR) << text;
            EXPECT_THAT(e->string, StartsWith(reply.error));
        }
    }
    list_t<ks_vm_folder_t> folders;
    EXPECT_EQ(json_parse_folders("", &folders)->number, ERR_INVALID_ARG);
    EXPECT_EQ(json_parse_folders("[]", nullptr)->number, ERR_INVALID_ARG);
    EXPECT_EQ(json_parse_folders("[]", &folders), nullptr);
}

TEST(json_parse_registry_value, TellsMissingFromUnknown) {
    struct case_t {
        const char* text;
        errnum_t number;
        const char* error;
    };
    for (const auto& [text, number, error] :
         {case_t{"]", ERR_JSON_PARSE_ERROR, "could not parse json_string"},
          {"{}", ERR_JSON_MISSING_FIELD, "Missing error_code in json string"},
          {"[]", ERR_JSON_MISSING_FIELD, "Missing error_code in json string"},
          {R"({"error_code":2,"result":"v"})", ERR_REGISTRY_KEY_NOT_FOUND, "Registry some.key is not found"},
          {R"({"error_code":0})", ERR_JSON_MISSING_FIELD, "Missing result in json string"},
          {R"({"error_code":0,"result":""})", ERR_JSON_MISSING_FIELD, "Missing result in json string"}}) {
        std::string value = "before";
        const errdesc_t* e = json_parse_registry_value(text, "some.key", &value, 10);
        ASSERT_EQ(number_of(e), number) << text;
        EXPECT_THAT(e->string, StartsWith(error));
        EXPECT_EQ(value, "before");
    }
    std::string value;
    EXPECT_EQ(json_parse_registry_value(R"({"error_code":0,"result":"0123456789"})", "k", &value, 10), nullptr);
    EXPECT_EQ(value, "012345678");
    EXPECT_EQ(json_parse_registry_value(R"({"error_code":0,"result":0})", "k", &value, 10), nullptr);
    EXPECT_EQ(value, "0");
}

}  // namespace
}  // namespace mirador
