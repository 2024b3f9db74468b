// SPDX-License-Identifier: Apache-2.0
// What the descriptor's scanner and grammar share with the code that runs them: the token, the state of one parse, and
// the actions that store what a line says. No other module includes this.
#pragma once

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <string_view>
#include <system_error>

#include "vmware/lib/vmdk/vmdk_parse.h"
#include "vmware/lib/vmdk/vmdkdesc.h"

namespace mirador {

// The value of a token. Numbers and quoted texts carry their text, quotes included, cut at max_text; keywords with a
// meaning carry that as number. The text points into the scanner's buffer and lives as long as the scanner.
struct vmdk_token_t {
    static constexpr std::size_t max_text = 1024;  // bytes

    std::uint32_t number = 0;
    std::string_view text;
    std::size_t length = 0;  // of the text as written
};

struct vmdk_parse_state_t {
    void* scanner = nullptr;
    vmdkdesc_t* desc = nullptr;
    vmdk_parse_faults_t* faults = nullptr;  // null: what it would tell is asserted on
};

// The scanner: the kind of the next token of vmdk_parse_state_t::scanner, its value in *value; 0 at the end.
int vmdklex(vmdk_token_t* value, void* scanner);

// The number at the start of a token's text, behind its opening quote if it has one.
template <typename number_t>
number_t vmdk_number(const vmdk_token_t& token, int base = 10) {
    std::string_view digits = token.text;
    if (digits.starts_with('"'))
        digits.remove_prefix(1);
    number_t value = 0;
    const auto result = std::from_chars(digits.data(), digits.data() + digits.size(), value, base);
    return result.ec == std::errc::result_out_of_range ? std::numeric_limits<number_t>::max() : value;
}

// The text between the first and the next quote; up to the end of a text that was cut before its closing quote.
std::string_view vmdk_unquoted(const vmdk_token_t& token);

// Stores a content id, always hexadecimal. One of more than 32 bits is passed over: cut or bounded it could read as
// "no parent" and turn a delta into a base.
void vmdk_set_content_id(const vmdk_token_t& token, std::uint32_t* id);

void vmdk_set_parent_hint(const vmdk_parse_state_t& state, const vmdk_token_t& hint);

// One extent line without its optional last number.
struct vmdk_extent_line_t {
    vmdk_token_t access;
    vmdk_token_t size;
    vmdk_token_t type;
    vmdk_token_t name;
};

// Appends the extent behind those read so far; `start` (of a six-field line) is where its data begins inside its file.
// Returns false when the record holds max_extents already.
[[nodiscard]] bool vmdk_add_extent(const vmdk_parse_state_t& state, const vmdk_extent_line_t& line,
                                   std::uint32_t start);

}  // namespace mirador
