// SPDX-License-Identifier: Apache-2.0
#include "tools/mirador-fileops/fileops_text.h"

#include <algorithm>
#include <array>
#include <cinttypes>

#include "lib/cor_string.h"

namespace mirador {
namespace {

constexpr const char* units[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
constexpr unsigned unit_bits = 10;
constexpr char first_printable = ' ';
constexpr char rubout = '\x7f';

bool continues_character(char c) {
    return (static_cast<unsigned char>(c) & 0xc0U) == 0x80;
}

// Control characters behind ASCII: "\xc2" and a byte from 0x80 to 0x9f.
bool is_control_pair(std::string_view text) {
    return text.size() >= 2 && text[0] == '\xc2' && (static_cast<unsigned char>(text[1]) & 0xe0U) == 0x80;
}

std::string spelled(char c) {
    return cor_format("\\x%02x", static_cast<unsigned char>(c));
}

// Characters, not bytes.
std::size_t width(const std::string& text) {
    return text.size() - static_cast<std::size_t>(std::ranges::count_if(text, continues_character));
}

}  // namespace

std::string size_text(std::uint64_t bytes, bool human) {
    if (!human || bytes < (1U << unit_bits))
        return cor_format("%" PRIu64, bytes);
    std::size_t unit = 0;
    std::uint64_t left = bytes;
    for (; left >= (std::uint64_t{1} << (2 * unit_bits)); left >>= unit_bits)
        unit++;
    const double value = static_cast<double>(left) / (1U << unit_bits);
    return cor_format(value < 10 ? "%.1f %s" : "%.0f %s", value, units[unit]);
}

std::string time_text(std::time_t time) {
    tm local{};
    std::array<char, 64> text{};
    if (localtime_r(&time, &local) == nullptr)
        return "-";
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local);
    return text.data();
}

std::string printable(std::string_view text) {
    std::string result;
    for (; !text.empty(); text.remove_prefix(1)) {
        const char c = text.front();
        if (is_control_pair(text)) {
            result += spelled(c) + spelled(text[1]);
            text.remove_prefix(1);
        } else if (c == '\\') {
            result += "\\\\";
        } else {
            result += (c >= 0 && c < first_printable) || c == rubout ? spelled(c) : std::string(1, c);
        }
    }
    return result;
}

std::string table_text(const std::vector<std::vector<std::string>>& rows, std::string_view aligned) {
    std::vector<std::size_t> widths(aligned.size());
    for (const auto& row : rows)
        for (std::size_t i = 0; i < row.size(); i++)
            widths[i] = std::max(widths[i], width(row[i]));
    std::string text;
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < row.size(); i++) {
            const std::string fill(widths[i] - width(row[i]), ' ');
            const bool is_last = i + 1 == row.size();
            text += aligned[i] == 'r' ? fill + row[i] : row[i] + (is_last ? "" : fill);
            text += is_last ? "\n" : "  ";
        }
    }
    return text;
}

}  // namespace mirador
