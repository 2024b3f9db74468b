// SPDX-License-Identifier: Apache-2.0
// The device-mapper table of a disk chain: for every grain, the topmost disk that holds it supplies it; grains that lie
// back to back in one file share a line. The table is written once, in the disk's order, with one grain table of each
// disk in memory.
//
// Extent types that cannot be mapped and cursors that are none are asserted against: vmdk_check_chain turns such chains
// down first.
#pragma once

#include <cstdint>
#include <cstdio>
#include <span>

#include "appliance/mounter/dmtdesc.h"
#include "lib/errdesc.h"
#include "vmware/lib/vmdk/vmdkdesc.h"

namespace mirador {

using vmdk_chain_t = std::span<vmdkdesc_t* const>;

// Lines that a table may have: what they cost in memory and disk space stays bearable.
inline constexpr std::uint64_t max_table_lines = 1ULL << 25;

// Entries that the grain tables of one chain may have: twice those of 2 TiB in grains of one sector, more than which no
// extent has. Directories may name tables again and again, and descriptors extents, so small files can claim any
// number.
inline constexpr std::uint64_t max_chain_table_entries = 1ULL << 33;

// Writes the whole table of an open disk to `file`: builds its chain unless that is built, opens the extent files of
// the disks that supply data unless they are open, reads their headers and grain directories, binds their loop devices
// and walks the extents. In every case the extent files are closed in the end, while the loop devices stay bound and
// are noted in the extents. *stats tells what was written.
// Errors: those of vmdk_get_ancestors, vmdk_open_extentfiles, vmdk_assign_loop_devs and vmdk_emit_extents.
[[nodiscard]] errdesc_t* vmdk_emit_dm_table(std::FILE* file, vmdkdesc_t* vmdkdesc, vdsk_stats_t* stats);

// Binds each extent file of the disk, which must be open and not bound yet (both asserted), to a loop device,
// read-only. Errors: those of vdsk_assign_next_loop_dev.
[[nodiscard]] errdesc_t* vmdk_assign_loop_devs(vmdkdesc_t* vmdkdesc);

// Writes the lines of all extents of the chain's first disk. Extent files must be open, grain directories read, loop
// devices noted. Errors: those of vmdk_emit_dm_table_flat and vmdk_emit_dm_table_sparse; EFBIG, before any table is
// read, for grain tables of more than max_chain_table_entries.
[[nodiscard]] errdesc_t* vmdk_emit_extents(std::FILE* file, vmdk_chain_t chain, vdsk_stats_t* stats);

// Writes the one line of a flat extent. Errors: errno with "Cannot stat extent file %s"; EIO with "Flat file %s of size
// %jd do not match with the expected extent size %jd" for a file too short; one too long is logged and mapped.
[[nodiscard]] errdesc_t* vmdk_emit_dm_table_flat(std::FILE* file, vmdk_chain_t chain, dmtdesc_t* dmtdesc);

// Writes the lines of a sparse extent, whose grain directory is not empty (asserted). Errors: those of vmdk_fill_gtbuf;
// those of vmdk_check_flat_size for a parent's flat extent; EFBIG for a table of more than max_table_lines.
[[nodiscard]] errdesc_t* vmdk_emit_dm_table_sparse(std::FILE* file, vmdk_chain_t chain, dmtdesc_t* dmtdesc);

// Compares a flat extent's file with the size in the descriptor. Errors: as vmdk_emit_dm_table_flat.
[[nodiscard]] errdesc_t* vmdk_check_flat_size(const vmdkdesc_t& vmdkdesc, std::uint32_t extent_index);

// Releases what building the table allocated in the disk and its parents: extent files, grain directories and grain
// tables. Descriptors and loop devices stay.
void vmdk_emit_dm_table_free(vmdkdesc_t* vmdkdesc);

}  // namespace mirador
