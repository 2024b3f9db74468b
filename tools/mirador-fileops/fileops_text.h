// SPDX-License-Identifier: Apache-2.0
// Sizes, times, names and tables as a person reads them.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

namespace mirador {

// Bytes as a number, or with `human` in the largest unit of which there is one: "17", "1.5 KiB", "20 GiB".
std::string size_text(std::uint64_t bytes, bool human);

// Local time, "2026-11-21 18:35:02".
std::string time_text(std::time_t time);

// A text for one line of a terminal: control characters are spelled as "\x1b", a backslash doubled.
std::string printable(std::string_view text);

// Rows of equally many cells as lines, two blanks between columns. `aligned`: a character for each column, 'l' or 'r'
// for left and right; the last column is not filled up.
std::string table_text(const std::vector<std::vector<std::string>>& rows, std::string_view aligned);

}  // namespace mirador
