// SPDX-License-Identifier: Apache-2.0
// UUIDs: 16 bytes; as text 32 lower-case hexadecimal digits in groups 8-4-4-4-12.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace mirador {

struct cor_uuid_t {
    std::array<std::uint8_t, 16> value;
    bool operator==(const cor_uuid_t&) const = default;
};
static_assert(sizeof(cor_uuid_t) == 16);

// Reads pairs of hexadecimal digits and skips everything else, up to 16 bytes; a short text leaves the rest 0. False
// when a digit stands alone.
[[nodiscard]] bool uuid_str_to_value(std::string_view text, cor_uuid_t* uuid);
std::string uuid_value_to_str(const cor_uuid_t& uuid);

// The canonical form of any accepted text; what a malformed text gave up to its fault, rest 0.
std::string normalize_uuid(std::string_view text);

}  // namespace mirador
