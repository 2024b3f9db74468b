// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/registry.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace mirador {
namespace {

TEST(registry, NamesAreCutAndStay) {
    reg_settings_t settings;
    const reg_names_t& none = settings.names();
    settings.publish_names({.appliance_uuid = std::string(100, 'a'),
                            .master_uuid = std::string(63, 'm'),
                            .vendor_id = "Corvantis and more"});
    const reg_names_t& first = settings.names();
    EXPECT_EQ(first.appliance_uuid, std::string(63, 'a'));
    EXPECT_EQ(first.master_uuid, std::string(63, 'm'));
    EXPECT_EQ(first.vendor_id, "Corvantis ");

    settings.publish_names({.appliance_uuid = "b", .master_uuid = "b", .vendor_id = "b"});
    EXPECT_EQ(settings.names().vendor_id, "b");
    EXPECT_EQ(first.vendor_id, "Corvantis ");
    EXPECT_EQ(none.vendor_id, "");
    settings.publish_names({});
    EXPECT_EQ(&settings.names(), &none);  // known names take no new place
}

TEST(registry, ReadersMeetWholeNamesWhileTheyChange) {
    reg_settings_t* const settings = get_reg_settings();
    settings->publish_names({.appliance_uuid = "0", .master_uuid = "0", .vendor_id = "0"});
    std::atomic<bool> stop = false;
    std::atomic<unsigned> torn = 0;
    std::vector<std::jthread> readers;
    for (int i = 0; i < 3; i++)
        readers.emplace_back([&] {
            while (!stop) {
                const reg_names_t& names = settings->names();
                if (names.appliance_uuid != names.master_uuid || names.appliance_uuid != names.vendor_id ||
                    settings->max_session < 50)
                    torn++;
            }
        });
    for (int i = 0; i < 2000; i++) {
        const std::string text = std::to_string(i % 100);
        settings->publish_names({.appliance_uuid = text, .master_uuid = text, .vendor_id = text});
        settings->max_session = 50 + i;
    }
    stop = true;
    readers.clear();
    EXPECT_EQ(torn, 0U);
}

}  // namespace
}  // namespace mirador
