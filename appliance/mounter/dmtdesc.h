// SPDX-License-Identifier: Apache-2.0
// The cursor that walks a virtual disk while the lines of its device-mapper table are written. Each line maps a run of
// the disk's sectors onto a loop device, or onto zeros; the lines follow each other without gap or overlap.
//
// All sector values are 512-byte sectors.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

#include "appliance/mounter/vdsk_stats.h"

namespace mirador {

struct dmtdesc_t {
    static constexpr std::uint32_t magic_value = 0xabcdefab;
    static constexpr std::uint32_t version_value = 1;

    std::uint32_t magic = magic_value;
    std::uint32_t version = version_value;
    std::uint64_t size = 0;                // length of the line being written
    std::uint64_t grainsize = 0;           // of the current extent; of a flat one its whole size
    std::uint64_t numgtespergt = 0;        // entries of a grain table of the current extent
    std::uint64_t gd_index = 0;            // current grain-directory index
    std::uint64_t dm_offset = 0;           // first sector of the next line in the virtual disk
    std::uint64_t extent_offset = 0;       // where the line's data begins in the loop device
    std::uint64_t extent_end = 0;          // where the current extent ends in the virtual disk
    std::uint32_t extent_index = 0;        // the extent being mapped, the same in every disk of the chain
    std::uint32_t ancestor_index = 0;      // the disk that supplies the current run; 0: the child
    std::uint32_t zeros = 0;               // longest that the current run may become, in grains
    const std::string* loopdev = nullptr;  // loop device of the supplying extent, which owns the text
    vdsk_stats_t stats;                    // of the lines written so far
};

// Asserts that the cursor is one.
void dmt_check(const dmtdesc_t& dmtdesc);

// Writes one line for `size` sectors, "%ju %ju linear %s %ju\n" or, where no disk holds them, "%ju %ju zero\n", moves
// the cursor behind them and sets `size` to `grainsize` again. A failed write is asserted against: the stream's owner
// sees to that (table_file.h).
void vmdk_emit(std::FILE* file, dmtdesc_t* dmtdesc);
void vmdk_emit_zero(std::FILE* file, dmtdesc_t* dmtdesc);

}  // namespace mirador
