// SPDX-License-Identifier: Apache-2.0
#include "tools/mirador-inspect/inspect_json.h"

#include <string>

namespace mirador {
namespace {

constexpr std::string_view replacement = "\xef\xbf\xbd";

// The smallest code point that may take a sequence of so many bytes.
constexpr std::uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};

std::size_t sequence_length(unsigned char lead) {
    if (lead < 0x80)
        return 1;
    if (lead >= 0xc0 && lead < 0xe0)
        return 2;
    if (lead >= 0xe0 && lead < 0xf0)
        return 3;
    return lead >= 0xf0 && lead < 0xf8 ? 4 : 0;
}

// The bytes of the character at the start of `text`, which is not empty; 0 when there is none.
std::size_t character_length(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text[0]);
    const std::size_t length = sequence_length(lead);
    if (length <= 1 || length > text.size())
        return length == 1 ? 1 : 0;
    std::uint32_t code = lead & (0x7fU >> length);
    for (const char c : text.substr(1, length - 1)) {
        if ((static_cast<unsigned char>(c) & 0xc0U) != 0x80)
            return 0;
        code = (code << 6) | (static_cast<unsigned char>(c) & 0x3fU);
    }
    const bool surrogate = code >= 0xd800 && code <= 0xdfff;
    return code < smallest[length] || code > 0x10ffff || surrogate ? 0 : length;
}

std::string valid_utf8(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const std::size_t length = character_length(text);
        result += length == 0 ? replacement : text.substr(0, length);
        text.remove_prefix(length == 0 ? 1 : length);
    }
    return result;
}

}  // namespace

json_ptr json_number(std::uint64_t value) {
    return json_ptr(json_object_new_uint64(value));
}

json_ptr json_signed(std::int64_t value) {
    return json_ptr(json_object_new_int64(value));
}

json_ptr json_bool(bool value) {
    return json_ptr(json_object_new_boolean(value ? 1 : 0));
}

json_ptr json_null() {
    return nullptr;
}

json_ptr json_array() {
    return json_ptr(json_object_new_array());
}

json_ptr json_map() {
    return json_ptr(json_object_new_object());
}

json_ptr json_text(std::string_view text) {
    const std::string valid = valid_utf8(text);
    return json_ptr(json_object_new_string_len(valid.data(), static_cast<int>(valid.size())));
}

void json_add(const json_ptr& map, const char* key, json_ptr value) {
    json_object_object_add(map.get(), key, value.release());
}

void json_append(const json_ptr& array, json_ptr value) {
    json_object_array_add(array.get(), value.release());
}

std::string json_line(const json_ptr& value) {
    return json_object_to_json_string_ext(value.get(), JSON_C_TO_STRING_SPACED | JSON_C_TO_STRING_NOSLASHESCAPE);
}

void json_print(const json_ptr& value, std::FILE* out) {
    constexpr int flags = JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_SPACED | JSON_C_TO_STRING_NOSLASHESCAPE;
    std::fprintf(out, "%s\n", json_object_to_json_string_ext(value.get(), flags));
}

}  // namespace mirador
