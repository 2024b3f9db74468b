// SPDX-License-Identifier: Apache-2.0
// The snapshot database's language: reading a text that has nothing but lines of it, and picking those lines out of
// what hosts write.
//
// Each call makes its own scanner and parser: any thread may parse at any time. A text ends at the end of the file or
// at its first zero byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "lib/errdesc.h"
#include "vmware/lib/vmsd/vmsddesc.h"

namespace mirador {

inline constexpr std::size_t vmsd_max_text = std::size_t{4} << 20;   // bytes
inline constexpr std::uint64_t vmsd_max_snapshots = (1U << 14) - 1;  // that a file may announce
inline constexpr std::uint64_t vmsd_max_disks = 1U << 10;            // of one snapshot
inline constexpr std::uint64_t vmsd_max_all_disks = 1U << 16;        // of all snapshots

// Empties *vmsddesc and fills it from the file `path`. Every line must fit the grammar; lines that come before the
// count which makes room for them are accepted and say nothing. After an error the record holds what the lines before
// it said. Errors: errno with the path or "/dev/null"; EINVAL "cannot initialize the scanner"; EINVAL "cannot parse the
// input file"; those of read_text_file.
// Asserted: vmsddesc is not null, no count is beyond the bounds above. For files that somebody else may have written,
// call vmsd_check first, or vmsd_open.
[[nodiscard]] errdesc_t* vmsd_parse_file_contents(const std::string& path, vmsddesc_t* vmsddesc);

// Looks at all counts and names of a text, without storing anything. After success the parser does not assert on it.
// Errors: EINVAL "Snapshot database refused, <fault>: <path>" for a negative or too large count, too many disks or
// snapshots altogether, a file name that is too long; those of the parser but for lines that do not fit.
[[nodiscard]] errdesc_t* vmsd_check(const std::string& path, std::string_view text);

// What a line is about. The counts come first in the order in which they make room.
enum class vmsd_line_t : std::uint8_t { numsnapshots, numdisks, other };

// What vmsd_filter makes of a text.
struct vmsd_filtered_t {
    std::string text;              // the lines that the grammar knows, each with its line feed, counts first
    std::string encoding;          // what ".encoding" declares; empty: nothing
    std::uint32_t lost_lines = 0;  // lines left out, comments and empty ones not counted
};

// Picks the lines that the grammar knows, with counts put first. In texts whatever stands between quotes is known, also
// what looks like a number; a line with anything that the scanner would drop, other than blanks and carriage returns,
// is not. Errors: those of the parser but for lines that do not fit.
[[nodiscard]] errdesc_t* vmsd_filter(std::string_view text, vmsd_filtered_t* filtered);

}  // namespace mirador
