// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmdk/vmdk_graindir.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <limits>
#include <span>

#include "lib/cor_assert.h"
#include "vmware/lib/vmdk/vmdk_extent.h"

namespace mirador {
namespace {

constexpr std::size_t entry_size = sizeof(std::uint32_t);
constexpr std::uint32_t hdr_sizes[] = {sizeof(sparsehdr_t), sizeof(cowdiskhdr_t)};

off_t byte_offset(std::uint64_t sector) {
    return static_cast<off_t>(sector * sector_size);
}

std::uint32_t narrow_sectors(std::uint64_t sectors) {
    cor_assert(sectors <= std::numeric_limits<std::uint32_t>::max());
    return static_cast<std::uint32_t>(sectors);
}

errdesc_t* open_sparse(extentdesc_t* extent) {
    const sparsehdr_t& hdr = extent->hdr.sparse;
    cor_assert(hdr.magic == sparsehdr_t::magic_value);
    cor_assert(hdr.version == sparsehdr_t::version_value);
    return vmdk_read_graindir_common(extent->fd.get(), byte_offset(hdr.gdoffset), narrow_sectors(hdr.capacity),
                                     narrow_sectors(hdr.grainsize), hdr.numgtespergt, &extent->graindir);
}

errdesc_t* open_cow(extentdesc_t* extent) {
    const cowdiskhdr_t& hdr = extent->hdr.cow;
    cor_assert(hdr.magic == cowdiskhdr_t::magic_value);
    cor_assert(hdr.version == cowdiskhdr_t::version_value);
    cor_assert(hdr.flags == cowdiskhdr_t::flags_value);
    return vmdk_read_graindir_common(extent->fd.get(), byte_offset(hdr.gdoffset), hdr.numsectors, hdr.grainsize,
                                     cowdiskhdr_t::numgtespergt, &extent->graindir);
}

errdesc_t* open_graindirs(vmdkdesc_t* vmdkdesc) {
    for (const auto& extent : vmdkdesc->extentdesc) {
        if ((extent->extenttype & et_sparse_mask) == 0)
            continue;
        cor_assert(extent->fd);
        RETURN_IF_ERROR(vmdk_read_extent_header(extent.get()));
        cor_assert(std::ranges::count(hdr_sizes, extent->hdr_size) == 1);
        errdesc_t* e = extent->extenttype == ET_SPARSE ? open_sparse(extent.get()) : open_cow(extent.get());
        if (e != nullptr)
            return errdesc_set_fmt(e->number, "%s: %s", extent->extentname.c_str(), std::string(e->string).c_str());
    }
    return nullptr;
}

// The sectors of the virtual disk that both the directory and the extent line speak of.
std::uint64_t mapped_sectors(const extentdesc_t& extent) {
    return std::min<std::uint64_t>(extent.graindir.capacity, extent.extentsize);
}

errdesc_t* read_table(const extentdesc_t& extent, std::uint32_t gd_index, std::span<std::uint32_t> table) {
    std::size_t done = 0;
    errdesc_t* e = cor_pread(extent.fd.get(), table.data(), table.size_bytes(),
                             byte_offset(extent.graindir.gd_entry[gd_index]), &done);
    if (e != nullptr)
        return errdesc_set_str(e->number, extent.extentname);
    if (done < table.size_bytes())
        return errdesc_set_fmt(EINVAL, "%s: grain table %" PRIu32 " lies beyond the end of the file",
                               extent.extentname.c_str(), gd_index);
    return nullptr;
}

// Looks at every used entry of a table: the grain, as far as the extent reaches, must lie in the file.
errdesc_t* check_grains(const extentdesc_t& extent, std::uint32_t gd_index, std::span<const std::uint32_t> table) {
    if (table.empty())
        return nullptr;
    const graindir_t& dir = extent.graindir;
    const std::uint64_t highest = std::ranges::max(table);
    if (highest + dir.grainsize <= extent.file_sectors)
        return nullptr;
    std::uint64_t position = std::uint64_t{gd_index} * dir.numgtespergt * dir.grainsize;
    for (const std::uint32_t sector : table) {
        const std::uint64_t length = std::min<std::uint64_t>(dir.grainsize, mapped_sectors(extent) - position);
        if (sector != 0 && sector + length > extent.file_sectors)
            return errdesc_set_fmt(EINVAL, "%s: the grain of sector %" PRIu64 " lies beyond the end of the file",
                                   extent.extentname.c_str(), position);
        position += dir.grainsize;
    }
    return nullptr;
}

}  // namespace

errdesc_t* vmdk_open_graindir(vmdkdesc_t* vmdkdesc) {
    errdesc_t* e = open_graindirs(vmdkdesc);
    vmdk_get_gtbuf(vmdkdesc);
    return e;
}

std::uint32_t vmdk_graindir_entries(std::uint32_t capacity, std::uint32_t grainsize, std::uint32_t numgtespergt) {
    const double sectors_per_table = static_cast<double>(grainsize) * numgtespergt;
    return static_cast<std::uint32_t>(std::ceil(capacity / sectors_per_table));
}

errdesc_t* vmdk_read_graindir_common(int fd, off_t offset, std::uint32_t capacity, std::uint32_t grainsize,
                                     std::uint32_t numgtespergt, graindir_t* graindir) {
    *graindir = {};
    std::vector<std::uint32_t> entries(vmdk_graindir_entries(capacity, grainsize, numgtespergt));
    const std::size_t size = entries.size() * entry_size;
    std::size_t done = 0;
    if (size > 0)
        RETURN_IF_ERROR(cor_pread(fd, entries.data(), size, offset, &done));
    if (done < size)
        return errdesc_set_str(EINVAL, "grain directory beyond the end of the file");
    graindir->magic = graindir_t::magic_value;
    graindir->version = graindir_t::version_value;
    graindir->capacity = capacity;
    graindir->grainsize = grainsize;
    graindir->numgtespergt = numgtespergt;
    graindir->gd_entry_count = static_cast<std::uint32_t>(entries.size());
    graindir->gd_entry = std::move(entries);
    graindir->gt_entry_count = std::uint64_t{graindir->gd_entry_count} * numgtespergt;
    return nullptr;
}

void vmdk_get_gtbuf(vmdkdesc_t* vmdkdesc) {
    const bool sparse = !vmdkdesc->extentdesc.empty();
    vmdkdesc->gtbuf.assign(sparse ? vmdkdesc->extentdesc.front()->graindir.numgtespergt : 0, 0);
}

std::uint32_t vmdk_table_entries(const extentdesc_t& extent, std::uint32_t gd_index) {
    const graindir_t& dir = extent.graindir;
    const std::uint64_t grains = (mapped_sectors(extent) + dir.grainsize - 1) / dir.grainsize;
    const std::uint64_t before = std::uint64_t{gd_index} * dir.numgtespergt;
    return grains <= before ? 0
                            : static_cast<std::uint32_t>(std::min<std::uint64_t>(grains - before, dir.numgtespergt));
}

errdesc_t* vmdk_fill_gtbuf(vmdkdesc_t* vmdkdesc, std::uint32_t extent_index, std::uint32_t gd_index) {
    extentdesc_t& extent = *vmdkdesc->extentdesc.at(extent_index);
    graindir_t& dir = extent.graindir;
    cor_assert(dir.magic == graindir_t::magic_value);
    cor_assert(dir.version == graindir_t::version_value);
    cor_assert(dir.gd_entry_count > 0 && gd_index < dir.gd_entry_count);
    cor_assert(vmdkdesc->gtbuf.size() >= dir.numgtespergt);
    const std::span<std::uint32_t> table(vmdkdesc->gtbuf.data(), dir.numgtespergt);
    if (dir.gd_entry[gd_index] == 0) {
        std::ranges::fill(table, 0);
        return nullptr;
    }
    RETURN_IF_ERROR(read_table(extent, gd_index, table));
    const auto used = table.first(vmdk_table_entries(extent, gd_index));
    dir.gt_entry_total += used.size() - static_cast<std::uint64_t>(std::ranges::count(used, 0U));
    return check_grains(extent, gd_index, used);
}

}  // namespace mirador
