// SPDX-License-Identifier: Apache-2.0
#include "lib/cor_string.h"

#include <cstdio>
#include <cstring>

#include "lib/cor_assert.h"

namespace mirador {

void cor_snprintf(char* buf, std::size_t size, const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(buf, size, format, args);
    va_end(args);
    cor_assert(length >= 0 && static_cast<std::size_t>(length) < size);
}

void cor_safe_snprintf(char* buf, std::size_t size, const char* format, ...) {
    cor_assert(buf != nullptr && size > 0);
    std::va_list args;
    va_start(args, format);
    if (std::vsnprintf(buf, size, format, args) < 0)
        buf[0] = '\0';
    va_end(args);
    buf[size - 1] = '\0';
}

std::string cor_vformat(const char* format, std::va_list args) {
    std::va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, args);
    cor_assert(length >= 0);
    std::string text(static_cast<std::size_t>(length), '\0');
    const int written = std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    cor_assert(written == length);
    return text;
}

std::string cor_format(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    std::string text = cor_vformat(format, args);
    va_end(args);
    return text;
}

std::string cor_format_path(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    std::string text = cor_vformat(format, args);
    va_end(args);
    cor_assert(text.size() < path_size);
    return text;
}

void cor_safe_strncpy(char* dst, const char* src, std::size_t size) {
    cor_assert(dst != nullptr);
    cor_assert(src != nullptr);
    cor_assert(size > 0);
    const std::size_t length = strnlen(src, size);
    std::memcpy(dst, src, length);
    std::memset(dst + length, 0, size - length);
    dst[size - 1] = '\0';
}

void cor_safe_strncat(char* dst, const char* src, std::size_t size) {
    cor_assert(dst != nullptr);
    cor_assert(src != nullptr);
    cor_assert(size > 0);
    const std::size_t length = strnlen(src, size - 1);
    char* end = dst + std::strlen(dst);
    std::memcpy(end, src, length);
    end[length] = '\0';
    dst[size - 1] = '\0';
}

std::string cor_string_escape_char(std::string_view text, char c) {
    std::string escaped;
    escaped.reserve(2 * text.size());
    for (const char next : text) {
        if (next == c)
            escaped.push_back('\\');
        escaped.push_back(next);
    }
    return escaped;
}

std::string cor_string_escape_spaces(std::string_view text) {
    return cor_string_escape_char(text, ' ');
}

std::string_view last_component(std::string_view path) {
    return path.substr(path.rfind('/') + 1);
}

}  // namespace mirador
