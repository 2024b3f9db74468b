// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/shadow_names.h"
#include "tests/lib/error_number.h"

#include <gmock/gmock.h>

#include <cerrno>

namespace mirador {
namespace {

const std::string zero_byte("a\0b", 3);

TEST(shadow_names, VmNamesAreEncoded) {
    struct {
        std::string name;
        std::string encoded;
    } const cases[] = {
        {"", ""},
        {"web", "web"},
        {"a/b.", "a%2Fb%2E"},
        {".", "%2E"},
        {"..", ".%2E"},
        {"../../etc", "..%2F..%2Fetc"},
        {"\"*/:<>?\\|", "%22%2A%2F%3A%3C%3E%3F%5C%7C"},
        {"50% \xc3\xbc\xff", "50% \xc3\xbc\xff"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(percent_encode_vm_name(c.name), c.encoded) << c.name;
}

TEST(shadow_names, NamesThatReachOutsideAreRefused) {
    struct {
        std::string name;
        errnum_t number;
    } const cases[] = {
        {"web", 0},
        {"..x", 0},
        {std::string(255, 'n'), 0},
        {"", EINVAL},
        {".", EINVAL},
        {"..", EINVAL},
        {"a/b", EINVAL},
        {"/", EINVAL},
        {".corvantis.lck", EINVAL},
        {zero_byte, EINVAL},
        {std::string(256, 'n'), ENAMETOOLONG},
    };
    for (const auto& c : cases) {
        const errdesc_t* e = shadow_check_name(c.name, "Folder name");
        EXPECT_EQ(number_of(e), c.number) << c.name;
        if (e != nullptr && c.name != zero_byte) {
            EXPECT_THAT(std::string(e->string), testing::StartsWith("Folder name refused, "));
            EXPECT_THAT(std::string(e->string), testing::EndsWith(": " + c.name));
        }
    }
}

TEST(shadow_names, PathsThatReachOutsideAreRefused) {
    struct {
        std::string path;
        errnum_t number;
    } const cases[] = {
        {"vm/vm.vmx", 0},
        {"/vm//..x/vm.vmx", 0},
        {"", EINVAL},
        {"..", EINVAL},
        {"../vm.vmx", EINVAL},
        {"vm/../../vm.vmx", EINVAL},
        {"vm/..", EINVAL},
        {zero_byte, EINVAL},
        {"vm/" + std::string(256, 'n'), ENAMETOOLONG},
        {std::string(3073, '/'), ENAMETOOLONG},
    };
    for (const auto& c : cases)
        EXPECT_EQ(number_of(shadow_check_path(c.path, "Path")), c.number) << c.path;

    EXPECT_EQ(shadow_check_vmx_path("vm/vm.vmx", false), nullptr);
    EXPECT_EQ(shadow_check_vmx_path("vm/vm.vmtx", true), nullptr);
    EXPECT_EQ(number_of(shadow_check_vmx_path("vm/vm.vmtx", false)), EINVAL);
    EXPECT_EQ(number_of(shadow_check_vmx_path("vm/vm.vmx", true)), EINVAL);
}

TEST(shadow_names, PathsOfTheTree) {
    std::string path;
    ASSERT_EQ(shadow_vm_path("/export.shadow", "esx1", "a/b.", &path), nullptr);
    EXPECT_EQ(path, "/export.shadow/esx1/a%2Fb%2E");
    ASSERT_EQ(shadow_vm_path("/export.shadow", "esx1", "..", &path), nullptr);
    EXPECT_EQ(path, "/export.shadow/esx1/.%2E");
    ASSERT_EQ(shadow_group_path("/export.shadow", "Lab 1", "Folder name", &path), nullptr);
    EXPECT_EQ(path, "/export.shadow/Lab 1");
    ASSERT_EQ(shadow_uuid_path("/export.shadow", "564d-1", &path), nullptr);
    EXPECT_EQ(path, "/export.shadow/.uuid/564d-1");
    EXPECT_EQ(shadow_cfg_path("vm/my.vm.vmx", false), "vm/my.vm.cfg");
    EXPECT_EQ(shadow_cfg_path("vm/vm.vmtx", true), "vm/vm.cfg");

    path = "kept";
    EXPECT_EQ(number_of(shadow_vm_path("/s", "..", "vm", &path)), EINVAL);
    EXPECT_EQ(number_of(shadow_vm_path("/s", ".uuid", "vm", &path)), EINVAL);
    EXPECT_EQ(number_of(shadow_vm_path("/s", "esx1", "", &path)), EINVAL);
    EXPECT_EQ(number_of(shadow_vm_path("/s", "esx1", std::string(86, ':'), &path)), ENAMETOOLONG);
    EXPECT_EQ(number_of(shadow_vm_path("/" + std::string(4000, 's'), "esx1", "vm", &path)), ENAMETOOLONG);
    EXPECT_EQ(number_of(shadow_uuid_path("/s", "../x", &path)), EINVAL);
    EXPECT_EQ(path, "kept");
}

}  // namespace
}  // namespace mirador
