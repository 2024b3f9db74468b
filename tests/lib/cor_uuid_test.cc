// SPDX-License-Identifier: Apache-2.0
#include "lib/cor_uuid.h"

#include <gtest/gtest.h>

namespace mirador {
namespace {

TEST(cor_uuid, AcceptsAnyLayoutOfWholeBytes) {
    const std::string canonical = "564d7a1b-2c3d-4e5f-6071-8293a4b5c6d7";
    struct {
        const char* text;
        bool valid;
        std::string normal;
    } const cases[] = {
        {"56 4d 7a 1b 2c 3d 4e 5f-60 71 82 93 a4 b5 c6 d7", true, canonical},
        {"{564D7A1B-2C3D-4E5F-6071-8293A4B5C6D7}", true, canonical},
        {"564d7a1b2c3d4e5f60718293a4b5c6d7", true, canonical},
        {"564d7a1b2c3d4e5f60718293a4b5c6d7 9", true, canonical},
        {"56", true, "56000000-0000-0000-0000-000000000000"},
        {"", true, "00000000-0000-0000-0000-000000000000"},
        {"5-6", false, "00000000-0000-0000-0000-000000000000"},
        {"564", false, "56000000-0000-0000-0000-000000000000"},
    };
    for (const auto& c : cases) {
        cor_uuid_t uuid{};
        uuid.value.fill(0xff);
        EXPECT_EQ(uuid_str_to_value(c.text, &uuid), c.valid) << c.text;
        EXPECT_EQ(normalize_uuid(c.text), c.normal) << c.text;
    }
}

}  // namespace
}  // namespace mirador
