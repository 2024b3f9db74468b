// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/corcbt.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>

#include "controller/lib/controller_url.h"
#include "tests/support/fake_controller.h"

namespace mirador {
namespace {

TEST(corcbt, CompanionsStandBesideTheirDisk) {
    struct {
        const char* flat;
        const char* corcbt;  // null: there can be none
    } const cases[] = {
        {"/s/esx1/vm/web-flat.vmdk", "/s/esx1/vm/web-corcbt.vmdk"},
        {"/s/esx1/vm/web(1)-rdm.vmdk", "/s/esx1/vm/web(1)-corcbt.vmdk"},
        {"/s/x-flat.vmdk/a-flat-flat.vmdk", "/s/x-flat.vmdk/a-flat-corcbt.vmdk"},
        {"/s/x-flat.vmdk/web.vmdk", nullptr},
        {"/s/esx1/vm/web-flat.vmdk.bak", nullptr},
        {"", nullptr},
    };
    for (const auto& c : cases) {
        std::string path;
        const errdesc_t* e = flat_to_corcbt(c.flat, &path);
        ASSERT_EQ(e == nullptr, c.corcbt != nullptr) << c.flat;
        if (e == nullptr)
            EXPECT_EQ(path, c.corcbt);
        else
            EXPECT_EQ(e->number, ERR_INVALID_ARG);
    }
}

TEST(corcbt, ExtentsThatCannotBeMappedAreRefused) {
    constexpr std::int64_t disk = 1 << 20;
    constexpr std::int64_t far = INT64_MAX / 512 * 512;
    struct {
        cbt_extent_list_t list;
        const char* fault;  // null: none
    } const cases[] = {
        {{}, nullptr},
        {{{0, 0, disk}}, nullptr},
        {{{0, 0, 512}, {0, 512, 512}, {0, disk - 512, 512}}, nullptr},
        {{{0, -512, 512}}, "negative"},
        {{{0, 512, -512}}, "negative"},
        {{{0, 512, 0}}, "empty"},
        {{{0, 100, 512}}, "whole sectors"},
        {{{0, 512, 1000}}, "whole sectors"},
        {{{0, disk, 512}}, "beyond"},
        {{{0, disk - 512, 1024}}, "beyond"},
        {{{0, far, far}}, "beyond"},
        {{{0, 512, far}}, "beyond"},
        {{{0, 0, 1024}, {0, 512, 512}}, "before"},
        {{{0, 4096, 512}, {0, 0, 512}}, "before"},
        {{{0, 4096, 512}, {0, 4096, 512}}, "before"},
    };
    for (const auto& c : cases) {
        const errdesc_t* e = cbt_check_extents(c.list, disk);
        ASSERT_EQ(e == nullptr, c.fault == nullptr) << (c.fault != nullptr ? c.fault : e->string);
        if (e == nullptr)
            continue;
        EXPECT_EQ(e->number, EINVAL);
        EXPECT_THAT(e->string, testing::HasSubstr(c.fault));
    }
    EXPECT_NE(cbt_check_extents({{0, 0, 512}}, 0), nullptr);
}

TEST(corcbt, SizesComeFromTheController) {
    fake_controller_t& controller = fake_controller_t::fresh(controller_get_url);
    struct {
        const char* reply;
        std::uint32_t percent;
    } const cases[] = {
        {R"([{"name":"web-corcbt.vmdk","corcbt_size_percentage":42},{"name":"b","corcbt_size_percentage":7}])", 42},
        {R"({"name":"web-corcbt.vmdk","corcbt_size_percentage":101})", 100},
        {R"({"name":"web-corcbt.vmdk"})", 5},
        {"[]", 5},
        {"", 5},
    };
    for (const auto& c : cases) {
        controller.answer("vdisk?vhost_uuid=564d-1&name=web-corcbt.vmdk", c.reply);
        std::uint32_t percent = 0;
        ASSERT_EQ(get_corcbt_size_percent("564d-1", "/s/esx1/vm/web-corcbt.vmdk", &percent), nullptr) << c.reply;
        EXPECT_EQ(percent, c.percent) << c.reply;
    }
    controller.answer("vdisk?vhost_uuid=564d-1&name=web-corcbt.vmdk", "", 503);
    std::uint32_t percent = 77;
    EXPECT_NE(get_corcbt_size_percent("564d-1", "web-corcbt.vmdk", &percent), nullptr);
    EXPECT_EQ(percent, 77U);
}

}  // namespace
}  // namespace mirador
