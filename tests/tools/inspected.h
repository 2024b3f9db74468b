// SPDX-License-Identifier: Apache-2.0
// What mirador-inspect prints, for its tests.
#pragma once

#include <gtest/gtest.h>
#include <json-c/json.h>

#include <string>
#include <vector>

#include "tests/support/record_bytes.h"
#include "tools/mirador-inspect/inspect.h"
#include "tools/mirador-inspect/inspect_json.h"

namespace mirador {

struct inspected_t {
    int status = -1;
    std::string out;
    std::string err;
};

inline inspected_t inspect(const std::vector<std::string>& args) {
    inspected_t result;
    testing::internal::CaptureStderr();  // where the log goes
    result.err = printed([&](std::FILE* err) {
        result.out = printed([&](std::FILE* out) { result.status = inspect_main(args, out, err); });
    });
    static_cast<void>(testing::internal::GetCapturedStderr());
    return result;
}

inline json_ptr parsed(const inspected_t& result) {
    json_ptr json(json_tokener_parse(result.out.c_str()));
    EXPECT_NE(json, nullptr) << result.out << result.err;
    return json;
}

// The value at a JSON pointer as text; "absent" when there is none.
inline std::string at(const json_ptr& json, const std::string& pointer) {
    json_object* value = nullptr;
    if (json_pointer_get(json.get(), pointer.c_str(), &value) != 0)
        return "absent";
    return json_object_is_type(value, json_type_null) != 0 ? "null" : json_object_get_string(value);
}

}  // namespace mirador
