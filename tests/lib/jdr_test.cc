// SPDX-License-Identifier: Apache-2.0
#include "lib/jdr.h"

#include <gtest/gtest.h>
#include <json-c/json_tokener.h>

#include <limits>
#include <optional>
#include <string>

namespace mirador {
namespace {

json_ptr parse(const char* text) {
    return json_ptr(json_tokener_parse(text));
}

std::string text_of(json_object* value) {
    return json_object_to_json_string_ext(value, JSON_C_TO_STRING_PLAIN);
}

// A record as a user of the module marshals one.
struct file_t {
    const char* name = nullptr;
    std::uint32_t links = 0;
    std::int64_t bytes = 0;
    std::vector<const char*> paths;
};

ssize_t jdr_file(jdr_op_t op, json_object** obj, const char* key, file_t* file) {
    if (op == JDR_SIZE)
        return sizeof *file;
    json_object* members = jdr_get_sub_obj(op, *obj, key);
    if (members == nullptr || jdr_string(op, &members, "name", &file->name) < 0 ||
        jdr_uint32(op, &members, "links", &file->links) < 0 || jdr_int64(op, &members, "bytes", &file->bytes) < 0 ||
        jdr_array(op, &members, "paths", &file->paths, jdr_string) < 0)
        return jdr_failed;
    if (key == nullptr)
        *obj = members;
    return sizeof *file;
}

template <typename T>
std::optional<T> decoded(ssize_t (*marshal)(jdr_op_t, json_object**, const char*, T*), const std::string& value) {
    const json_ptr owner = parse(("{\"n\": " + value + "}").c_str());
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
    return text_of(obj);
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

TEST(jdr, RecordsThereAndBack) {
    file_t a{"a.vmx", 1, 1LL << 40, {"/x", "/y"}};
    file_t b{"b \"b\"", 0xffffffff, -1, {}};
    std::vector<file_t> files{a, b};
    json_object* obj = nullptr;
    EXPECT_EQ(jdr_array(JDR_ENCODE, &obj, nullptr, &files, jdr_file), static_cast<ssize_t>(2 * sizeof(file_t)));
    EXPECT_EQ(text_of(obj),
              "[{\"name\":\"a.vmx\",\"links\":1,\"bytes\":1099511627776,\"paths\":[\"\\/x\",\"\\/y\"]},"
              "{\"name\":\"b \\\"b\\\"\",\"links\":4294967295,\"bytes\":-1,\"paths\":[]}]");

    std::vector<file_t> back(5);
    EXPECT_EQ(jdr_array(JDR_DECODE, &obj, nullptr, &back, jdr_file), static_cast<ssize_t>(2 * sizeof(file_t)));
    ASSERT_EQ(back.size(), 2U);
    EXPECT_STREQ(back[0].name, "a.vmx");
    ASSERT_EQ(back[0].paths.size(), 2U);
    EXPECT_STREQ(back[0].paths[1], "/y");
    EXPECT_STREQ(back[1].name, "b \"b\"");
    EXPECT_EQ(back[1].links, 0xffffffffU);

    // The leak checker of the sanitizer build watches that nothing stays and nothing goes twice.
    EXPECT_EQ(jdr_array(JDR_FREE, &obj, nullptr, &back, jdr_file), static_cast<ssize_t>(2 * sizeof(file_t)));
    EXPECT_TRUE(back.empty());
    EXPECT_EQ(obj, nullptr);
}

}  // namespace
}  // namespace mirador
