// SPDX-License-Identifier: Apache-2.0
// Text: bounded formatting, formatting into a std::string, escaping.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <string>
#include <string_view>

namespace mirador {

// The room of every path buffer, terminator included.
inline constexpr std::size_t path_size = 4096;

// Formats into `buf` of `size` bytes. A result that does not fit, terminator included, or an encoding error is a
// fatal assertion.
[[gnu::format(printf, 3, 4)]] void cor_snprintf(char* buf, std::size_t size, const char* format, ...);

// Formats into `buf` of `size` > 0 bytes and cuts what does not fit; the last byte is always the terminator.
[[gnu::format(printf, 3, 4)]] void cor_safe_snprintf(char* buf, std::size_t size, const char* format, ...);

// The formatted text, of any length.
[[gnu::format(printf, 1, 2)]] std::string cor_format(const char* format, ...);
[[gnu::format(printf, 1, 0)]] std::string cor_vformat(const char* format, std::va_list args);

// cor_format for a path: a result of path_size characters or more is a fatal assertion.
[[gnu::format(printf, 1, 2)]] std::string cor_format_path(const char* format, ...);

// Copies at most `size` characters of `src` and always ends dst[size - 1] with the terminator; the rest of `dst` is
// filled with zeros. Null pointers are asserted against.
void cor_safe_strncpy(char* dst, const char* src, std::size_t size);

// Appends at most `size` - 1 characters of `src`, counted from `src` alone and not from the room left in `dst`, then
// sets dst[size - 1] to the terminator. The caller's `dst` must have room for both texts.
void cor_safe_strncat(char* dst, const char* src, std::size_t size);

// The text with a backslash before every space, or before every `c`.
std::string cor_string_escape_spaces(std::string_view text);
std::string cor_string_escape_char(std::string_view text, char c);

// The text after the last slash; the whole text if it has none.
std::string_view last_component(std::string_view path);

}  // namespace mirador
