// SPDX-License-Identifier: Apache-2.0
// The lines of a sparse extent.
#include <algorithm>
#include <cerrno>
#include <cinttypes>

#include "appliance/mounter/vmdkmount.h"
#include "lib/cor_assert.h"
#include "vmware/lib/vmdk/vmdk_graindir.h"

namespace mirador {
namespace {

// The grain table being walked: the cursor, the chain whose tables are loaded, and how many entries are in use.
struct table_walk_t {
    std::FILE* file;
    vmdk_chain_t chain;
    dmtdesc_t* dmtdesc;
    std::uint32_t entries;

    const vmdkdesc_t& disk() const { return *chain[dmtdesc->ancestor_index]; }
    const extentdesc_t& extent() const { return *disk().extentdesc[dmtdesc->extent_index]; }
    bool at_base() const { return dmtdesc->ancestor_index + 1 == chain.size(); }
};

// What kind of extent it is; any that can be neither is asserted against.
bool is_sparse(const extentdesc_t& extent) {
    cor_assert((extent.extenttype & (et_sparse_mask | et_flat_mask)) != 0);
    return (extent.extenttype & et_sparse_mask) != 0;
}

// Whether the directory has no table at the cursor, so that gtbuf holds none either and no grain is allocated. Most of
// a large delta's tables are of this kind.
bool lacks_table(const extentdesc_t& extent, const dmtdesc_t& dmtdesc) {
    return extent.graindir.gd_entry[dmtdesc.gd_index] == 0;
}

// Whether the disk at the cursor has the grain.
bool holds_grain(const table_walk_t& walk, std::uint32_t entry) {
    if (!is_sparse(walk.extent()))
        return true;
    return !lacks_table(walk.extent(), *walk.dmtdesc) && walk.disk().gtbuf[entry] != 0;
}

// Consecutive entries of the disk at the cursor from `entry` on that are not allocated, up to the cursor's `zeros`.
std::uint32_t vmdk_compute_zeros(const table_walk_t& walk, std::uint32_t entry) {
    const std::uint32_t bound = walk.dmtdesc->zeros;
    if (lacks_table(walk.extent(), *walk.dmtdesc))
        return bound;
    const auto first = walk.disk().gtbuf.begin() + entry;
    const auto held = std::find_if(first, first + bound, [](std::uint32_t sector) { return sector != 0; });
    return static_cast<std::uint32_t>(held - first);
}

// Grains from `entry` on that lie back to back in the file of the disk at the cursor, up to the cursor's `zeros`.
std::uint32_t vmdk_compute_contiguous(const table_walk_t& walk, std::uint32_t entry) {
    const std::uint32_t bound = walk.dmtdesc->zeros;
    if (!is_sparse(walk.extent()))
        return bound;
    const std::uint32_t* sectors = walk.disk().gtbuf.data() + entry;
    std::uint32_t run = 1;
    while (run < bound && sectors[run] == sectors[run - 1] + walk.dmtdesc->grainsize)
        ++run;
    return run;
}

// Where the grain lies in the file of the disk at the cursor.
std::uint64_t vmdk_compute_extent_offset(const table_walk_t& walk, std::uint32_t entry) {
    if (is_sparse(walk.extent()))
        return walk.disk().gtbuf[entry];
    const dmtdesc_t& dmtdesc = *walk.dmtdesc;
    return walk.extent().version + dmtdesc.grainsize * (entry + dmtdesc.gd_index * dmtdesc.numgtespergt);
}

// The length of a run of grains; the extent's end may cut the last one.
std::uint64_t run_size(const dmtdesc_t& dmtdesc, std::uint32_t run) {
    return std::min(run * dmtdesc.grainsize, dmtdesc.extent_end - dmtdesc.dm_offset);
}

// Each of these writes one line and returns the number of entries it covers.

std::uint32_t vmdk_emit_dm_table_contiguous(const table_walk_t& walk, std::uint32_t entry) {
    dmtdesc_t* dmtdesc = walk.dmtdesc;
    const std::uint32_t run = vmdk_compute_contiguous(walk, entry);
    dmtdesc->extent_offset = vmdk_compute_extent_offset(walk, entry);
    dmtdesc->loopdev = &walk.extent().loopdev;
    dmtdesc->size = run_size(*dmtdesc, run);
    vmdk_emit(walk.file, dmtdesc);
    return run;
}

std::uint32_t emit_hole(const table_walk_t& walk) {
    const std::uint32_t run = walk.dmtdesc->zeros;
    walk.dmtdesc->size = run_size(*walk.dmtdesc, run);
    vmdk_emit_zero(walk.file, walk.dmtdesc);
    return run;
}

// For a grain that the child lacks: walks down to the disk that holds it. The run ends where a disk on the way holds a
// grain again.
std::uint32_t vmdk_emit_dm_table_zeros(const table_walk_t& walk, std::uint32_t entry) {
    dmtdesc_t* dmtdesc = walk.dmtdesc;
    while (!holds_grain(walk, entry)) {
        dmtdesc->zeros = vmdk_compute_zeros(walk, entry);
        if (walk.at_base())
            return emit_hole(walk);
        dmtdesc->ancestor_index += 1;
    }
    return vmdk_emit_dm_table_contiguous(walk, entry);
}

void emit_table(const table_walk_t& walk) {
    for (std::uint32_t entry = 0; entry < walk.entries;) {
        walk.dmtdesc->ancestor_index = 0;
        walk.dmtdesc->zeros = walk.entries - entry;
        entry += vmdk_emit_dm_table_zeros(walk, entry);
    }
}

errdesc_t* load_tables(vmdk_chain_t chain, const dmtdesc_t& dmtdesc) {
    for (vmdkdesc_t* disk : chain) {
        const extentdesc_t& extent = *disk->extentdesc[dmtdesc.extent_index];
        if (is_sparse(extent) && !lacks_table(extent, dmtdesc))
            RETURN_IF_ERROR(vmdk_fill_gtbuf(disk, dmtdesc.extent_index, static_cast<std::uint32_t>(dmtdesc.gd_index)));
    }
    return nullptr;
}

// Lines of the table will reach into the flat files of parents, which must be long enough for that.
errdesc_t* check_flat_parents(vmdk_chain_t chain, std::uint32_t extent_index) {
    for (const vmdkdesc_t* disk : chain) {
        if (!is_sparse(*disk->extentdesc[extent_index]))
            RETURN_IF_ERROR(vmdk_check_flat_size(*disk, extent_index));
    }
    return nullptr;
}

errdesc_t* check_table_length(vmdk_chain_t chain, const dmtdesc_t& dmtdesc) {
    if (dmtdesc.stats.lines <= max_table_lines)
        return nullptr;
    return errdesc_set_fmt(EFBIG, "The mapping of %s has more than %" PRIu64 " pieces", chain.front()->filename.c_str(),
                           max_table_lines);
}

}  // namespace

errdesc_t* vmdk_emit_dm_table_sparse(std::FILE* file, vmdk_chain_t chain, dmtdesc_t* dmtdesc) {
    dmt_check(*dmtdesc);
    const extentdesc_t& extent = *chain.front()->extentdesc[dmtdesc->extent_index];
    cor_assert(extent.graindir.gd_entry_count > 0);
    RETURN_IF_ERROR(check_flat_parents(chain, dmtdesc->extent_index));
    dmtdesc->grainsize = extent.graindir.grainsize;
    dmtdesc->numgtespergt = extent.graindir.numgtespergt;
    for (std::uint32_t g = 0; g < extent.graindir.gd_entry_count; ++g) {
        dmtdesc->gd_index = g;
        dmtdesc->size = dmtdesc->grainsize;
        RETURN_IF_ERROR(load_tables(chain, *dmtdesc));
        emit_table({file, chain, dmtdesc, vmdk_table_entries(extent, g)});
        RETURN_IF_ERROR(check_table_length(chain, *dmtdesc));
    }
    return nullptr;
}

}  // namespace mirador
