// SPDX-License-Identifier: Apache-2.0
// JSON values for the output: thin, typed makers over json-c.
#pragma once

#include <json-c/json.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

namespace mirador {

struct json_putter_t {
    void operator()(json_object* value) const { json_object_put(value); }
};
using json_ptr = std::unique_ptr<json_object, json_putter_t>;

json_ptr json_number(std::uint64_t value);
json_ptr json_signed(std::int64_t value);
json_ptr json_bool(bool value);
json_ptr json_null();
json_ptr json_array();
json_ptr json_map();

// A text as valid UTF-8: each byte that is no part of a character becomes U+FFFD.
json_ptr json_text(std::string_view text);

// Adds a member or an element; the container owns it then.
void json_add(const json_ptr& map, const char* key, json_ptr value);
void json_append(const json_ptr& array, json_ptr value);

// A value as text on one line.
std::string json_line(const json_ptr& value);

// Prints a value on lines of its own, indented.
void json_print(const json_ptr& value, std::FILE* out);

}  // namespace mirador
