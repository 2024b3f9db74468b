// SPDX-License-Identifier: Apache-2.0
// Members of the controller's JSON objects as plain values. `obj` may be any value; only an object has members.
#pragma once

#include <json-c/json_object.h>

#include <cstdint>
#include <string>

#include "controller/lib/kestrel_types.h"
#include "lib/json_tools.h"

namespace mirador {

// What an integer reads as that was not sent.
inline constexpr std::int32_t json_missing_int = -1;

// The value that `text` holds; null when it is no JSON, nested deeper than 32 levels, or null.
json_ptr json_parse_text(const std::string& text);

// The member; null when it is missing or null. It belongs to `obj`.
json_object* json_member(json_object* obj, const char* name);

// Its text up to a zero byte; absent when it is missing or null.
ks_string_t json_text_member(json_object* obj, const char* name);

// Its number, cut to the type's range; json_missing_int when it is missing or null.
std::int32_t json_int_member(json_object* obj, const char* name);
std::int64_t json_int64_member(json_object* obj, const char* name);

}  // namespace mirador
