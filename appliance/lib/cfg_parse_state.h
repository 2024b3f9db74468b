// SPDX-License-Identifier: Apache-2.0
// What the scanner and grammar of a VM's description share with the code that runs them: the token, the state of one
// parse, and the actions that store what a line says. No other module includes this.
#pragma once

#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>

#include "appliance/lib/vmcfg.h"

namespace mirador {

// The value of a token: what a word means, or the text as it stands in the file, quotes included, which lives as long
// as the scanner.
struct cfg_token_t {
    std::uint32_t number = 0;
    std::string_view text;
};

struct cfg_parse_state_t {
    void* scanner = nullptr;
    vmcfg_t* vmcfg = nullptr;
};

// The scanner: the kind of the next token, its value in *value; 0 at the end.
int cfglex(cfg_token_t* value, void* scanner);

// The number in a token's text, behind its quote if it has one; false when it is too large.
template <typename number_t>
[[nodiscard]] bool cfg_number(const cfg_token_t& token, number_t* number) {
    std::string_view digits = token.text;
    if (digits.starts_with('"'))
        digits.remove_prefix(1);
    return std::from_chars(digits.data(), digits.data() + digits.size(), *number).ec == std::errc();
}

// A quoted text without its quotes and the backslashes that protect characters in it.
std::string strdup_quote(const cfg_token_t& token);

// Stores the version; the first one says nothing of host system and resource pool. False when it is too large.
[[nodiscard]] bool cfg_set_version(vmcfg_t* vmcfg, const cfg_token_t& token);

// The disk of a line's index; null when there is no such slot.
vmcfg_vd_t* cfg_disk(vmcfg_t* vmcfg, const cfg_token_t& index);

// Notes a syntax error; the first one's text is kept.
void cfgerror(vmcfg_t* vmcfg, const std::string& text);

}  // namespace mirador
