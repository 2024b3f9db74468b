// SPDX-License-Identifier: Apache-2.0
// Reads a device-mapper table the way the kernel would and answers with the bytes that it maps, so that tests can
// compare a table with what another program says the disk holds.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace mirador {

// One line; sizes are in 512-byte sectors. An empty device stands for zeros.
struct dm_line_t {
    std::uint64_t start = 0;
    std::uint64_t length = 0;
    std::string device;
    std::uint64_t offset = 0;
    bool operator==(const dm_line_t&) const = default;
};

// Parses a table of linear and zero lines. False when a line is malformed or empty, or leaves a gap or an overlap to
// the one before; *fault then tells which.
bool parse_dm_table(const std::string& text, std::vector<dm_line_t>* table, std::string* fault);

// Writes all bytes that the table maps to the file `path`; holes stay holes. False with *fault when a device is too
// short for a line that maps it.
bool read_dm_table(const std::vector<dm_line_t>& table, const std::string& path, std::string* fault);

}  // namespace mirador
