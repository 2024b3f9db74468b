// SPDX-License-Identifier: Apache-2.0
// The lines of a VMX file, found in its bytes: encodings that such files have keep line ends, quotes, "=" and "#" as
// ASCII does, so the lines are found before anything is converted. And the escapes inside its values.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace mirador {

// One setting. The views point into the scanned text.
struct vmx_setting_t {
    std::string_view key;    // as written
    std::string_view value;  // without its quotes, escapes as written
    std::size_t begin = 0;   // where the value stands in the text, its quotes included
    std::size_t end = 0;     // behind it
};

// Calls `use` for each setting of the text, which ends before its first zero byte; a byte order mark at its start is
// skipped. A value begins behind "=" and blanks: with a quote, and then ends before the next quote or at the line's
// end, or without, and then ends before "#" or the line's end, blanks excluded. What follows a closing quote is
// ignored. Returns the number of lines that are neither empty nor comment nor setting.
unsigned vmx_scan(std::string_view text, const std::function<void(const vmx_setting_t&)>& use);

// The value without its escapes: "|" and two hexadecimal digits stand for one byte. A zero byte stays escaped, so that
// no value has one; a "|" without digits stands for itself.
std::string vmx_unescape(std::string_view value);

// The value with escapes for what may not stand between quotes: quotes, "|", "#" and control characters.
std::string vmx_escape(std::string_view value);

// The text with its ASCII letters in lower case.
std::string vmx_lower(std::string_view text);

}  // namespace mirador
