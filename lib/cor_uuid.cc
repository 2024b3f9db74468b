// SPDX-License-Identifier: Apache-2.0
#include "lib/cor_uuid.h"

#include "lib/cor_assert.h"

namespace mirador {
namespace {

// The value of a hexadecimal digit; -1 for any other character.
int hex_value(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

}  // namespace

bool uuid_str_to_value(std::string_view text, cor_uuid_t* uuid) {
    cor_assert(uuid != nullptr);
    *uuid = {};
    std::size_t filled = 0;
    for (std::size_t i = 0; i < text.size() && filled < uuid->value.size(); i++) {
        const int high = hex_value(text[i]);
        if (high < 0)
            continue;
        i++;
        const int low = i < text.size() ? hex_value(text[i]) : -1;
        if (low < 0)
            return false;
        uuid->value[filled++] = static_cast<std::uint8_t>(high * 16 + low);
    }
    return true;
}

std::string uuid_value_to_str(const cor_uuid_t& uuid) {
    constexpr std::string_view digits = "0123456789abcdef";
    constexpr std::size_t text_length = 36;
    std::string text;
    text.reserve(text_length);
    for (std::size_t i = 0; i < uuid.value.size(); i++) {
        if (i == 4 || i == 6 || i == 8 || i == 10)
            text.push_back('-');
        text.push_back(digits[uuid.value[i] >> 4]);
        text.push_back(digits[uuid.value[i] & 0xf]);
    }
    return text;
}

std::string normalize_uuid(std::string_view text) {
    cor_uuid_t uuid{};
    (void)uuid_str_to_value(text, &uuid);
    return uuid_value_to_str(uuid);
}

}  // namespace mirador
