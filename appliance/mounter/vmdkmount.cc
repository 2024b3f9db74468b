// SPDX-License-Identifier: Apache-2.0
#include "appliance/mounter/vmdkmount.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>

#include "appliance/lib/loopdev.h"
#include "lib/cor_assert.h"
#include "lib/log.h"
#include "vmware/lib/vmdk/vmdk_chain.h"
#include "vmware/lib/vmdk/vmdk_extent.h"

namespace mirador {
namespace {

errdesc_t* build_chain(vmdkdesc_t* vmdkdesc) {
    if (!vmdkdesc->vmdk_ancestor_array.empty())
        return nullptr;
    return vmdk_get_ancestors(vmdkdesc, 0, &vmdkdesc->vmdk_ancestor_array);
}

errdesc_t* open_and_bind(vmdk_chain_t chain) {
    for (vmdkdesc_t* disk : chain) {
        RETURN_IF_ERROR(vmdk_open_extentfiles(disk));
        RETURN_IF_ERROR(vmdk_assign_loop_devs(disk));
    }
    return nullptr;
}

void close_extents(vmdk_chain_t chain) {
    for (vmdkdesc_t* disk : chain)
        vmdk_close_extentfiles(disk);
}

std::uint64_t table_entries(const graindir_t& dir) {
    const auto absent = static_cast<std::uint64_t>(std::ranges::count(dir.gd_entry, 0U));
    return (dir.gd_entry.size() - absent) * dir.numgtespergt;
}

// What is read of the chain's grain tables takes its time, and others wait meanwhile.
errdesc_t* check_table_entries(vmdk_chain_t chain) {
    std::uint64_t entries = 0;
    for (const vmdkdesc_t* disk : chain) {
        for (const auto& extent : disk->extentdesc)
            entries += table_entries(extent->graindir);
    }
    if (entries <= max_chain_table_entries)
        return nullptr;
    return errdesc_set_fmt(EFBIG, "The grain tables of %s have more than %" PRIu64 " entries",
                           chain.front()->filename.c_str(), max_chain_table_entries);
}

errdesc_t* emit_extent(std::FILE* file, vmdk_chain_t chain, dmtdesc_t* dmtdesc) {
    switch (chain.front()->extentdesc[dmtdesc->extent_index]->extenttype) {
        case ET_FLAT:
        case ET_VMFS:
        case ET_VMFSRDM:
            return vmdk_emit_dm_table_flat(file, chain, dmtdesc);
        case ET_SPARSE:
        case ET_VMFSSPARSE:
        case ET_SESPARSE:
            return vmdk_emit_dm_table_sparse(file, chain, dmtdesc);
        default:
            cor_assert_text(false, "extent type cannot be mapped");
            return nullptr;
    }
}

}  // namespace

errdesc_t* vmdk_emit_dm_table(std::FILE* file, vmdkdesc_t* vmdkdesc, vdsk_stats_t* stats) {
    RETURN_IF_ERROR(build_chain(vmdkdesc));
    const vmdk_chain_t chain = vmdk_mapped_disks(vmdkdesc);
    errdesc_t* e = open_and_bind(chain);
    if (e == nullptr)
        e = vmdk_emit_extents(file, chain, stats);
    const errdesc_keeper_t keep;
    close_extents(chain);
    return e;
}

errdesc_t* vmdk_assign_loop_devs(vmdkdesc_t* vmdkdesc) {
    for (std::uint32_t i = 0; i < vmdkdesc->extentdesccount(); ++i) {
        extentdesc_t& extent = *vmdkdesc->extentdesc[i];
        cor_assert(extent.loopdev.empty());
        cor_assert(extent.fd);
        RETURN_IF_ERROR(vdsk_assign_next_loop_dev_fd(extent.fd.get(), vmdk_extent_path(*vmdkdesc, i), true,
                                                     loopdev_timeout, &extent.loopdev));
    }
    return nullptr;
}

errdesc_t* vmdk_emit_extents(std::FILE* file, vmdk_chain_t chain, vdsk_stats_t* stats) {
    RETURN_IF_ERROR(check_table_entries(chain));
    dmtdesc_t dmtdesc;
    dmtdesc.stats.chain_length = static_cast<std::uint32_t>(chain.size());
    const vmdkdesc_t& child = *chain.front();
    for (std::uint32_t i = 0; i < child.extentdesccount(); ++i) {
        dmtdesc.extent_index = i;
        dmtdesc.extent_end = dmtdesc.dm_offset + child.extentdesc[i]->extentsize;
        RETURN_IF_ERROR(emit_extent(file, chain, &dmtdesc));
        cor_assert(dmtdesc.dm_offset == dmtdesc.extent_end);
    }
    *stats = dmtdesc.stats;
    return nullptr;
}

errdesc_t* vmdk_check_flat_size(const vmdkdesc_t& vmdkdesc, std::uint32_t extent_index) {
    const extentdesc_t& extent = *vmdkdesc.extentdesc[extent_index];
    const std::string path = vmdk_extent_path(vmdkdesc, extent_index);
    // A block device's status has no size, its end has.
    const std::intmax_t size = lseek(extent.fd.get(), 0, SEEK_END);
    if (size < 0)
        return errdesc_set_fmt(errno, "Cannot stat extent file %s", path.c_str());
    const auto expected = static_cast<std::intmax_t>((extent.version + extent.extentsize) * sector_size);
    if (size < expected)
        return errdesc_set_fmt(EIO, "Flat file %s of size %jd do not match with the expected extent size %jd",
                               path.c_str(), size, expected);
    if (size > expected)
        ts_printf(
            "Flat file %s of size %jd do not match with the expected extent size %jd specified in the disk "
            "descriptor.\n",
            path.c_str(), size, expected);
    return nullptr;
}

errdesc_t* vmdk_emit_dm_table_flat(std::FILE* file, vmdk_chain_t chain, dmtdesc_t* dmtdesc) {
    dmt_check(*dmtdesc);
    RETURN_IF_ERROR(vmdk_check_flat_size(*chain.front(), dmtdesc->extent_index));
    const extentdesc_t& extent = *chain.front()->extentdesc[dmtdesc->extent_index];
    dmtdesc->ancestor_index = 0;
    dmtdesc->grainsize = extent.extentsize;
    dmtdesc->size = extent.extentsize;
    dmtdesc->extent_offset = extent.version;
    dmtdesc->loopdev = &extent.loopdev;
    vmdk_emit(file, dmtdesc);
    return nullptr;
}

void vmdk_emit_dm_table_free(vmdkdesc_t* vmdkdesc) {
    for (vmdkdesc_t* disk = vmdkdesc; disk != nullptr; disk = disk->parent.get()) {
        vmdk_close_extentfiles(disk);
        disk->gtbuf = {};
        for (const auto& extent : disk->extentdesc)
            extent->graindir = {};
    }
}

}  // namespace mirador
