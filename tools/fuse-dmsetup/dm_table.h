// SPDX-License-Identifier: Apache-2.0
// A device-mapper table: which bytes of which device stand where in the mapped device.
//
// Text, one target a line, all numbers in 512-byte sectors:
//
//   START LENGTH linear DEVICE OFFSET
//   START LENGTH zero
//
// Empty lines and lines that begin with '#' count for nothing. A table is valid when the targets begin at 0, follow
// each other without gap or overlap, none is empty, and every device exists and is as large as the targets on it need.
// A table of a 1 TiB disk can have eight million lines: a target takes 16 bytes here, and the text is never held whole.
//
// A device may be another mapping. Its table is looked up in turn, so that reading through it costs no more than that.
//
// A table does not change once it is read; any number of threads may look things up in it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "lib/errdesc.h"
#include "tools/fuse-dmsetup/dm_device.h"

namespace mirador {

// Bytes that lie together on one device; with no device, zeros.
struct dm_piece_t {
    const dm_device_t* device;
    std::uint64_t offset;  // bytes
    std::size_t size;      // bytes
};

class dm_table_t {
  public:
    std::uint64_t sectors() const { return sectors_; }

    // The pieces of the mapped device's bytes [offset, offset + size), in order, neighbours on one device joined, each
    // on a block device or zeros. What lies beyond the end is left out. They are valid as long as the table.
    std::vector<dm_piece_t> map(std::uint64_t offset, std::size_t size) const;

    // The table's lines, each behind `prefix`, with devices as "major:minor", mappings by name, in portions of some
    // 64 KiB. `write` returns false to hear no more.
    void print(std::string_view prefix, const std::function<bool(std::string_view)>& write) const;

  private:
    friend class dm_table_reader_t;

    static constexpr unsigned device_bits = 16;
    static constexpr std::uint64_t zero_device = (1U << device_bits) - 1;  // index that stands for "zeros"
    static constexpr std::uint64_t max_offset = (std::uint64_t{1} << (64 - device_bits)) - 1;

    struct target_t {
        std::uint64_t start;
        std::uint64_t place;  // offset on the device, above the device's index in the lowest device_bits

        std::uint64_t offset() const { return place >> device_bits; }
        std::uint64_t device() const { return place & zero_device; }
    };

    std::uint64_t end_of(std::size_t index) const {
        return index + 1 < targets_.size() ? targets_[index + 1].start : sectors_;
    }
    void add_pieces(std::uint64_t offset, std::size_t size, std::vector<dm_piece_t>* pieces) const;
    void print_target(std::size_t index, std::string* text) const;

    std::vector<target_t> targets_;  // by start
    std::vector<dm_device_t> devices_;
    std::uint64_t sectors_ = 0;
};

// Reads a table's text from the descriptor's current position to its end. Errors: EINVAL with "line N: " and what is
// wrong; EINVAL "no targets"; those of `opener` for a device; errno of a read.
[[nodiscard]] errdesc_t* dm_table_read(int fd, const dm_device_opener_t& opener, dm_table_t* table);

}  // namespace mirador
