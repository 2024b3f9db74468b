// SPDX-License-Identifier: Apache-2.0
// Reads a table's text, in portions of any size, and checks it line by line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tools/fuse-dmsetup/dm_table.h"

namespace mirador {

class dm_table_reader_t {
  public:
    // Both must outlive the reader; *table is complete after finish().
    dm_table_reader_t(const dm_device_opener_t& opener, dm_table_t* table) : opener_(opener), table_(*table) {}

    // The next portion of the text. Errors: as dm_table_read; nothing may follow one.
    [[nodiscard]] errdesc_t* feed(std::string_view text);
    [[nodiscard]] errdesc_t* finish();

  private:
    errdesc_t* read_line(std::string_view line);
    errdesc_t* read_linear(std::string_view words, std::uint64_t length, std::uint64_t* place);
    errdesc_t* find_device(std::string_view name, std::size_t* index);
    errdesc_t* wrong(const char* what) const;

    const dm_device_opener_t& opener_;
    dm_table_t& table_;
    std::string begun_;  // a line whose end has not come yet
    std::uint64_t line_ = 0;
    std::size_t last_device_ = 0;
};

}  // namespace mirador
