// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmx/vmx_scan.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>

#include "lib/cor_string.h"

namespace mirador {
namespace {

constexpr std::string_view byte_order_mark = "\xef\xbb\xbf";
constexpr std::string_view blanks = " \t\r\v\f";

std::string_view trimmed_left(std::string_view text) {
    return text.substr(std::min(text.find_first_not_of(blanks), text.size()));
}

std::string_view trimmed(std::string_view text) {
    return trimmed_left(text.substr(0, text.find_last_not_of(blanks) + 1));
}

// The value at the start of `rest`, which begins with no blank; *whole takes its quotes in.
std::string_view value_of(std::string_view rest, std::string_view* whole) {
    if (!rest.starts_with('"')) {
        *whole = trimmed(rest.substr(0, rest.find('#')));
        return *whole;
    }
    const std::size_t close = rest.find('"', 1);
    *whole = rest.substr(0, close == std::string_view::npos ? close : close + 1);
    return rest.substr(1, close == std::string_view::npos ? close : close - 1);
}

enum class line_kind_t : std::uint8_t { nothing, setting, lost };

line_kind_t scan_line(std::string_view line, std::string_view text, vmx_setting_t* setting) {
    line = trimmed(line);
    if (line.empty() || line.starts_with('#'))
        return line_kind_t::nothing;
    const std::size_t equal = line.find('=');
    if (equal == std::string_view::npos)
        return line_kind_t::lost;
    setting->key = trimmed(line.substr(0, equal));
    if (setting->key.empty() || setting->key.find_first_of("\"#") != std::string_view::npos)
        return line_kind_t::lost;
    std::string_view whole;
    // An empty value is where the line ends; a view of nothing would not tell where that is.
    setting->value = value_of(trimmed_left(line.substr(equal + 1)), &whole);
    setting->begin = static_cast<std::size_t>(whole.data() - text.data());
    setting->end = setting->begin + whole.size();
    return line_kind_t::setting;
}

// The byte that the two digits stand for; none unless both are digits.
std::optional<char> byte_of(std::string_view digits) {
    std::uint8_t byte = 0;
    if (digits.size() != 2)
        return std::nullopt;
    const auto [stopped, error] = std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
    if (error != std::errc() || stopped != digits.data() + digits.size())
        return std::nullopt;
    return static_cast<char>(byte);
}

}  // namespace

unsigned vmx_scan(std::string_view text, const std::function<void(const vmx_setting_t&)>& use) {
    unsigned lost = 0;
    std::string_view rest = text.substr(0, text.find('\0'));
    if (rest.starts_with(byte_order_mark))
        rest.remove_prefix(byte_order_mark.size());
    while (!rest.empty()) {
        const std::size_t length = std::min(rest.find('\n'), rest.size());
        vmx_setting_t setting;
        const line_kind_t kind = scan_line(rest.substr(0, length), text, &setting);
        if (kind == line_kind_t::setting)
            use(setting);
        lost += kind == line_kind_t::lost ? 1 : 0;
        rest.remove_prefix(std::min(length + 1, rest.size()));
    }
    return lost;
}

std::string vmx_unescape(std::string_view value) {
    constexpr std::size_t escape_size = 3;
    std::string result;
    result.reserve(value.size());
    for (std::size_t i = 0; i < value.size();) {
        const auto byte = value[i] == '|' ? byte_of(value.substr(i + 1, 2)) : std::nullopt;
        const bool escaped = byte.has_value() && *byte != '\0';
        result += escaped ? *byte : value[i];
        i += escaped ? escape_size : 1;
    }
    return result;
}

std::string vmx_escape(std::string_view value) {
    std::string result;
    for (const char c : value) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < ' ' || byte == 0x7f || c == '"' || c == '|' || c == '#')
            result += cor_format("|%02X", byte);
        else
            result += c;
    }
    return result;
}

std::string vmx_lower(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
    return result;
}

}  // namespace mirador
