// SPDX-License-Identifier: Apache-2.0
#include "lib/jdr.h"

#include <gtest/gtest.h>
#include <json-c/json_tokener.h>

#include <limits>
#include <optional>
#include <string>

namespace mirador {
namespace {

template <typename T>
std::optional<T> decoded(ssize_t (*marshal)(jdr_op_t, json_object**, const char*, T*), const std::string& value) {
    const json_ptr owner(json_tokener_parse(("{\"n\": " + value + "}").c_str()));
    json_object* obj = owner.get();
    T native{};
    if (marshal(JDR_DECODE, &obj, "n", &native) < 0)
        return std::nullopt;
    return native;
}

template <typename T>
std::string encoded(ssize_t (*marshal)(jdr_op_t, json_object**, const char*, T*), T native) {
    json_object* obj = nullptr;
    EXPECT_EQ(marshal(JDR_ENCODE, &obj, nullptr, &native), static_cast<ssize_t>(sizeof native));
    const json_ptr owner(obj);
    return json_object_to_json_string(obj);
}

TEST(jdr, IntegersKeepTheirValue) {
    EXPECT_EQ(encoded(jdr_int32, std::numeric_limits<std::int32_t>::min()), "-2147483648");
    EXPECT_EQ(encoded(jdr_uint32, 4294967295U), "4294967295");
    EXPECT_EQ(encoded(jdr_uint64, std::numeric_limits<std::uint64_t>::max()), "18446744073709551615");
    EXPECT_EQ(encoded(jdr_time_t, std::time_t{1} << 32), "4294967296");

    EXPECT_EQ(decoded(jdr_int32, "2147483647"), 2147483647);
    EXPECT_EQ(decoded(jdr_int32, "2147483648"), std::nullopt);
    EXPECT_EQ(decoded(jdr_uint32, "4294967295"), 4294967295U);
    EXPECT_EQ(decoded(jdr_uint32, "-1"), 4294967295U);
    EXPECT_EQ(decoded(jdr_uint32, "4294967296"), std::nullopt);
    EXPECT_EQ(decoded(jdr_int64, "-9223372036854775808"), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(decoded(jdr_uint64, "18446744073709551615"), std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(decoded(jdr_uint64, "-1"), std::numeric_limits<std::uint64_t>::max());
}

}  // namespace
}  // namespace mirador
