// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace mirador {

// What the mapping of a disk is made of. Sizes are in 512-byte sectors.
struct vdsk_stats_t {
    std::uint32_t chain_length = 0;   // disks that supply data
    std::uint64_t lines = 0;          // lines of the table
    std::uint64_t sectors = 0;        // size of the mapped disk
    std::uint64_t child_sectors = 0;  // of these supplied by the disk itself
    std::uint64_t zero_sectors = 0;   // of these supplied by no disk: they read as zeros
};

}  // namespace mirador
