// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/corcbt.h"

#include <gtest/gtest.h>

#include <cerrno>

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
