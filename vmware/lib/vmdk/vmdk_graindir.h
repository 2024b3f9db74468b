// SPDX-License-Identifier: Apache-2.0
// Grain directories and grain tables of sparse extents. A directory is read whole, once; of the tables one at a time is
// held, in the disk's gtbuf.
//
// The functions here assert on headers and directories that make no sense: chain_check.h turns such disks down first.
// What a table says is looked at whenever one is read, so no caller ever sees a grain beyond its file.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <cstdio>

#include "lib/errdesc.h"
#include "vmware/lib/vmdk/vmdkdesc.h"

namespace mirador {

// Reads header and grain directory of every sparse extent, whose files must be open (asserted, as are magic, version
// and flags of the headers and their length of 512 or 2050 bytes), and makes the grain-table buffer in every case.
// Errors: errno with the extent's name; those of vmdk_read_graindir_common.
[[nodiscard]] errdesc_t* vmdk_open_graindir(vmdkdesc_t* vmdkdesc);

// The number of grain tables that `capacity` sectors need.
std::uint32_t vmdk_graindir_entries(std::uint32_t capacity, std::uint32_t grainsize, std::uint32_t numgtespergt);

// Fills the directory's header fields and reads its entries, at byte `offset`. Sizes are in sectors; `grainsize` and
// `numgtespergt` are not 0. Errors, which leave the directory empty: errno of the read; EINVAL when the file ends
// within the directory.
[[nodiscard]] errdesc_t* vmdk_read_graindir_common(int fd, off_t offset, std::uint32_t capacity,
                                                   std::uint32_t grainsize, std::uint32_t numgtespergt,
                                                   graindir_t* graindir);

// Makes gtbuf: room for one grain table of the first extent; none for a disk whose first extent has no directory.
void vmdk_get_gtbuf(vmdkdesc_t* vmdkdesc);

// The number of entries of a grain table that stand for sectors of the extent: all but in the last table. A last grain
// that the extent's end cuts counts.
std::uint32_t vmdk_table_entries(const extentdesc_t& extent, std::uint32_t gd_index);

// Reads one grain table into gtbuf; a directory entry of 0 gives zeros without a read. The directory's magic and
// version and the index are asserted. Errors: errno with the extent's name; EINVAL naming extent and table for a table
// or a grain beyond the end of the file.
[[nodiscard]] errdesc_t* vmdk_fill_gtbuf(vmdkdesc_t* vmdkdesc, std::uint32_t extent_index, std::uint32_t gd_index);

// Prints a header for debugging. The four line-end characters of a sparse header are asserted; vmdk_line_ends_intact
// tells whether they are in place.
bool vmdk_line_ends_intact(const sparsehdr_t& hdr);
void vmdk_dump_sparsehdr(const sparsehdr_t& hdr, std::FILE* stream);
void vmdk_dump_cowdiskhdr(const cowdiskhdr_t& hdr, std::FILE* stream);

// Prints every directory entry of the open disk and every grain that is allocated. Errors: those of vmdk_fill_gtbuf.
[[nodiscard]] errdesc_t* vmdk_dump_graindir(vmdkdesc_t* vmdkdesc, std::FILE* stream);

}  // namespace mirador
