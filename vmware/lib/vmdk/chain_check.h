// SPDX-License-Identifier: Apache-2.0
// What is asked of an open chain's extents before their grain directories are read and the chain is mapped. The
// functions that do so assert on headers and take for granted that the disks of a chain have the same shape; a chain
// that fails here is an error of this one disk. Only headers are read, no directory and no table.
#pragma once

#include <cstdint>
#include <string>

#include "lib/errdesc.h"
#include "vmware/lib/vmdk/vmdkdesc.h"

namespace mirador {

// Bounds of what a sparse extent may claim, wide enough for every extent of 2 TiB, the format's limit.
inline constexpr std::uint32_t vmdk_max_grainsize = 1U << 16;        // sectors
inline constexpr std::uint32_t vmdk_max_table_entries = 1U << 16;    // of one grain table
inline constexpr std::uint32_t vmdk_max_gd_entries = 1U << 20;       // of one grain directory: 4 MiB
inline constexpr std::uint64_t vmdk_max_chain_entries = 1ULL << 26;  // of all directories of a chain: 256 MiB

// Looks at the header of a sparse extent whose file is open and whose header has been read; `path` names it in texts.
// After success vmdk_open_graindir does not assert on this extent. Errors: EINVAL "Extent refused, <fault>: <path>" for
// a short header; a wrong magic, version or flags (compressed and marked extents among them); a capacity of 0, beyond
// 32 bits or below the extent's size; a grain size that is no power of two or too large; a grain table without entries
// or with too many; a directory that is too large or not wholly in the file.
[[nodiscard]] errdesc_t* vmdk_check_extent(const extentdesc_t& extent, const std::string& path);

// Opens every extent file of the disks that supply data (vmdk_mapped_disks; the chain must be built), leaves them open,
// and looks at them and at the chain's shape. On an error they are closed again. Errors: those of vmdk_open_extentfile,
// vmdk_read_extent_header and vmdk_check_extent; EINVAL naming the descriptor for a stream-optimised disk, disks that
// differ in number or size of their extents or in capacity, grain size or table length of the sparse ones at one
// index, a disk with a sparse extent whose grain tables are longer than the first extent's, directories that are too
// large together; EIO for a disk on the ordinary mount where that shows a sparse extent's own file instead of a flat
// one.
[[nodiscard]] errdesc_t* vmdk_check_chain(vmdkdesc_t* vmdkdesc);

}  // namespace mirador
