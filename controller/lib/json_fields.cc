// SPDX-License-Identifier: Apache-2.0
#include "controller/lib/json_fields.h"

#include <json-c/json_tokener.h>

namespace mirador {

json_ptr json_parse_text(const std::string& text) {
    return json_ptr(json_tokener_parse(text.c_str()));
}

json_object* json_member(json_object* obj, const char* name) {
    json_object* member = nullptr;
    return json_object_object_get_ex(obj, name, &member) != 0 ? member : nullptr;
}

ks_string_t json_text_member(json_object* obj, const char* name) {
    json_object* const member = json_member(obj, name);
    if (member == nullptr)
        return std::nullopt;
    return json_object_get_string(member);
}

std::int32_t json_int_member(json_object* obj, const char* name) {
    json_object* const member = json_member(obj, name);
    return member == nullptr ? json_missing_int : json_object_get_int(member);
}

std::int64_t json_int64_member(json_object* obj, const char* name) {
    json_object* const member = json_member(obj, name);
    return member == nullptr ? json_missing_int : json_object_get_int64(member);
}

}  // namespace mirador
