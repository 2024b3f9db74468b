// SPDX-License-Identifier: Apache-2.0
#include "lib/json_tools.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <string>
#include <thread>

#include "lib/file_io.h"

namespace mirador {
namespace {

std::string text_of(const json_ptr& value) {
    return json_object_to_json_string_ext(value.get(), JSON_C_TO_STRING_PLAIN);
}

file_ptr stream_of(std::string* text) {
    return file_ptr(fmemopen(text->data(), text->size(), "r"));
}

TEST(json_tools, FieldsAsTheControllerTakesThem) {
    const json_ptr obj(json_object_new_object());
    json_add_string_field(obj.get(), "name", "b\xc3\xbc\"cher\n");
    json_add_int_field(obj.get(), "percent", -2147483647);
    json_add_uint64_field(obj.get(), "size", 18446744073709551615U);
    json_add_uint32_field(obj.get(), "port", 4294967295U);
    testing::internal::CaptureStderr();
    json_add_string_field(obj.get(), "error", std::nullopt);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "warning: empty value for field \"error\"\n");
    EXPECT_EQ(text_of(obj),
              "{\"name\":\"b\xc3\xbc\\\"cher\\n\",\"percent\":-2147483647,\"size\":\"18446744073709551615\","
              "\"port\":\"4294967295\",\"error\":\"\"}");
}

TEST(json_tools, ReadsOneValueAfterTheOther) {
    std::string text = "{\"a\": [1, {\"b\": \"}\"}]}\n[]\"x\" 42\n{} tail";
    const file_ptr stream = stream_of(&text);
    for (const char* expected : {"{\"a\":[1,{\"b\":\"}\"}]}", "[]", "\"x\"", "42", "{}"})
        EXPECT_EQ(text_of(json_read_object(stream.get())), expected);
    EXPECT_EQ(std::getc(stream.get()), ' ');
}

TEST(json_tools, WhatIsNoWholeValueReadsAsNull) {
    struct {
        std::string text;
        bool is_error;
    } const cases[] = {
        {"", false},
        {"  \n", false},
        {"{\"a\": 1", false},
        {"{\"a\": 1]", true},
        {"hello", true},
        {std::string("{\0}", 3), true},
        {std::string(40, '['), true},
    };
    for (const auto& c : cases) {
        std::string text = c.text;
        const file_ptr stream(text.empty() ? std::fopen("/dev/null", "r") : stream_of(&text).release());
        testing::internal::CaptureStdout();
        EXPECT_EQ(json_read_object(stream.get()), nullptr) << c.text;
        EXPECT_THAT(testing::internal::GetCapturedStdout(),
                    testing::MatchesRegex(c.is_error ? "Parse error: 0x[0-9a-f]+\n" : ""))
            << c.text;
    }
}

// The other side of a pipe goes on only when it has seen our answer: reading must not wait for more than the value.
TEST(json_tools, ReadsNoByteBeyondTheValue) {
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    const file_ptr stream(fdopen(ends[0], "r"));
    unique_fd writer(ends[1]);
    ASSERT_EQ(write(writer.get(), "{\"whole\": ", 10), 10);
    std::thread rest([&writer] { EXPECT_EQ(write(writer.get(), "true}", 5), 5); });
    EXPECT_EQ(text_of(json_read_object(stream.get())), "{\"whole\":true}");
    rest.join();
}

TEST(json_tools, Prints) {
    std::string text = "{\"a\": [1]}";
    const file_ptr stream = stream_of(&text);
    const json_ptr obj = json_read_object(stream.get());
    testing::internal::CaptureStdout();
    json_debug_dump(obj.get());
    json_print_object(obj.get());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "JSON result:\n{ \"a\": [ 1 ] }\n{\n  \"a\":[\n    1\n  ]\n}\n");
}

}  // namespace
}  // namespace mirador
