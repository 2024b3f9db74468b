// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmdk/chain_check.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <limits>
#include <optional>
#include <span>

#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "vmware/lib/vmdk/vmdk_chain.h"
#include "vmware/lib/vmdk/vmdk_extent.h"
#include "vmware/lib/vmdk/vmdk_graindir.h"

namespace mirador {
namespace {

using chain_t = std::span<vmdkdesc_t* const>;

// Flags of a hosted sparse extent.
constexpr std::uint32_t flag_line_ends = 1U << 0;     // the line-end characters are valid
constexpr std::uint32_t flag_zeroed_grain = 1U << 2;  // table entry 1 is a grain of zeros
constexpr std::uint32_t flag_compressed = 1U << 16;
constexpr std::uint32_t flag_markers = 1U << 17;
constexpr std::uint32_t refused_flags = flag_zeroed_grain | flag_compressed | flag_markers;

constexpr std::size_t gd_entry_size = sizeof(std::uint32_t);

// What the file of a sparse extent begins with, the hypervisor's newer kind among them.
constexpr std::uint32_t sparse_magics[] = {sparsehdr_t::magic_value, cowdiskhdr_t::magic_value, 0xcafebabe};

// What both kinds of sparse header say about the extent.
struct geometry_t {
    std::uint64_t capacity = 0;
    std::uint64_t grainsize = 0;
    std::uint32_t numgtespergt = 0;
    std::uint64_t gdoffset = 0;
    bool operator==(const geometry_t&) const = default;

    bool same_shape(const geometry_t& other) const {
        return capacity == other.capacity && grainsize == other.grainsize && numgtespergt == other.numgtespergt;
    }
    std::uint32_t gd_entries() const {
        return vmdk_graindir_entries(static_cast<std::uint32_t>(capacity), static_cast<std::uint32_t>(grainsize),
                                     numgtespergt);
    }
};

bool is_sparse(const extentdesc_t& extent) {
    return (extent.extenttype & et_sparse_mask) != 0;
}

geometry_t geometry_of(const extentdesc_t& extent) {
    if (extent.extenttype == ET_SPARSE) {
        const sparsehdr_t& hdr = extent.hdr.sparse;
        return {hdr.capacity, hdr.grainsize, hdr.numgtespergt, hdr.gdoffset};
    }
    const cowdiskhdr_t& hdr = extent.hdr.cow;
    return {hdr.numsectors, hdr.grainsize, cowdiskhdr_t::numgtespergt, hdr.gdoffset};
}

// The fault of an extent or chain as text; none: nullptr.
const char* hosted_header_fault(const sparsehdr_t& hdr) {
    if (hdr.magic != sparsehdr_t::magic_value)
        return "wrong magic number of a sparse extent";
    if (hdr.version != sparsehdr_t::version_value)
        return "unknown version of a sparse extent";
    if ((hdr.flags & refused_flags) != 0)
        return "flags of a sparse extent that cannot be mapped";
    if ((hdr.flags & flag_line_ends) != 0 && !vmdk_line_ends_intact(hdr))
        return "sparse extent damaged by a text-mode transfer";
    return nullptr;
}

const char* cow_header_fault(const cowdiskhdr_t& hdr, const geometry_t& geometry) {
    if (hdr.magic != cowdiskhdr_t::magic_value)
        return "wrong magic number of a copy-on-write extent";
    if (hdr.version != cowdiskhdr_t::version_value)
        return "unknown version of a copy-on-write extent";
    if (hdr.flags != cowdiskhdr_t::flags_value)
        return "flags of a copy-on-write extent that cannot be mapped";
    if (geometry.grainsize != 0 && hdr.numgdentries < geometry.gd_entries())
        return "grain directory too short for the capacity";
    return nullptr;
}

const char* header_fault(const extentdesc_t& extent) {
    const std::uint32_t size = extent.hdr_size;
    if (size != sizeof(sparsehdr_t) && size != sizeof(cowdiskhdr_t))
        return "short header";
    if (extent.extenttype == ET_SPARSE)
        return hosted_header_fault(extent.hdr.sparse);
    if (size != sizeof(cowdiskhdr_t))
        return "short header";
    return cow_header_fault(extent.hdr.cow, geometry_of(extent));
}

const char* geometry_fault(const geometry_t& geometry, std::uint64_t extentsize) {
    if (geometry.capacity == 0 || geometry.capacity > std::numeric_limits<std::uint32_t>::max())
        return "capacity out of range";
    if (geometry.capacity < extentsize)
        return "capacity below the size in the descriptor";
    if (!std::has_single_bit(geometry.grainsize) || geometry.grainsize > vmdk_max_grainsize)
        return "grain size out of range";
    if (geometry.numgtespergt == 0 || geometry.numgtespergt > vmdk_max_table_entries)
        return "entries of a grain table out of range";
    if (geometry.gd_entries() > vmdk_max_gd_entries)
        return "grain directory too large";
    return nullptr;
}

const char* directory_fault(const geometry_t& geometry, std::uint64_t file_sectors) {
    const std::uint64_t bytes = std::uint64_t{geometry.gd_entries()} * gd_entry_size;
    const std::uint64_t sectors = (bytes + sector_size - 1) / sector_size;
    if (geometry.gdoffset == 0)
        return "no grain directory";
    if (geometry.gdoffset > file_sectors || sectors > file_sectors - geometry.gdoffset)
        return "grain directory beyond the end of the file";
    return nullptr;
}

errdesc_t* refuse_disk(const vmdkdesc_t& disk, const std::string& fault) {
    return errdesc_set_fmt(EINVAL, "Disk chain refused, %s: %s", fault.c_str(), disk.filename.c_str());
}

errdesc_t* check_descriptor_shape(chain_t chain, const vmdkdesc_t& disk) {
    if (disk.createtype == CT_STREAM_OPTIMIZED)
        return refuse_disk(disk, "stream-optimised disks cannot be mapped");
    const vmdkdesc_t& child = *chain.front();
    if (disk.extentdesc.empty())
        return refuse_disk(disk, "no extents");
    if (disk.extentdesccount() != child.extentdesccount())
        return refuse_disk(disk, "another number of extents than its child's");
    for (std::uint32_t i = 0; i < disk.extentdesccount(); ++i) {
        if (disk.extentdesc[i]->extentsize != child.extentdesc[i]->extentsize)
            return refuse_disk(disk, cor_format("another size of extent %u than its child's", i));
    }
    return nullptr;
}

errdesc_t* check_extents(vmdkdesc_t* disk) {
    for (std::uint32_t i = 0; i < disk->extentdesccount(); ++i) {
        RETURN_IF_ERROR(vmdk_open_extentfile(disk, i));
        extentdesc_t& extent = *disk->extentdesc[i];
        if (!is_sparse(extent))
            continue;
        RETURN_IF_ERROR(vmdk_read_extent_header(&extent));
        RETURN_IF_ERROR(vmdk_check_extent(extent, vmdk_extent_path(*disk, i)));
    }
    return nullptr;
}

// One buffer, as long as the first extent's grain tables, serves all extents of a disk.
errdesc_t* check_table_buffer(const vmdkdesc_t& disk) {
    const extentdesc_t& first = *disk.extentdesc.front();
    const std::uint32_t room = is_sparse(first) ? geometry_of(first).numgtespergt : 0;
    for (std::uint32_t i = 1; i < disk.extentdesccount(); ++i) {
        const extentdesc_t& extent = *disk.extentdesc[i];
        if (is_sparse(extent) && geometry_of(extent).numgtespergt > room)
            return refuse_disk(disk, cor_format("longer grain tables in extent %u than in the first", i));
    }
    return nullptr;
}

// All sparse extents at one index are walked with the same directory and table index.
errdesc_t* check_same_geometry(chain_t chain, std::uint32_t index) {
    std::optional<geometry_t> shape;
    for (const vmdkdesc_t* disk : chain) {
        const extentdesc_t& extent = *disk->extentdesc[index];
        if (!is_sparse(extent))
            continue;
        const geometry_t geometry = geometry_of(extent);
        if (shape && !shape->same_shape(geometry))
            return refuse_disk(*disk, cor_format("another geometry of extent %u than its child's", index));
        shape = geometry;
    }
    return nullptr;
}

// The ordinary mount shows a disk as one flat file. Where it does not, but shows a sparse extent's own file, the guest
// would get headers and tables for its data. A file that has not grown to the disk's size is turned down for that when
// it is mapped.
errdesc_t* check_shown_flat(vmdkdesc_t* disk) {
    extentdesc_t& extent = *disk->extentdesc.front();
    if (extent.file_sectors < extent.extentsize)
        return nullptr;
    RETURN_IF_ERROR(vmdk_read_extent_header(&extent));
    if (std::ranges::count(sparse_magics, extent.hdr.cow.magic) == 0)
        return nullptr;
    return errdesc_set_fmt(EIO, "Extent refused, a sparse file where the mount should show a flat one: %s",
                           vmdk_extent_path(*disk, 0).c_str());
}

errdesc_t* check_total_size(chain_t chain) {
    std::uint64_t entries = 0;
    for (const vmdkdesc_t* disk : chain) {
        for (const auto& extent : disk->extentdesc)
            entries += is_sparse(*extent) ? geometry_of(*extent).gd_entries() : 0;
    }
    return entries > vmdk_max_chain_entries ? refuse_disk(*chain.front(), "grain directories too large") : nullptr;
}

errdesc_t* check_chain(chain_t chain) {
    for (const vmdkdesc_t* disk : chain)
        RETURN_IF_ERROR(check_descriptor_shape(chain, *disk));
    for (vmdkdesc_t* disk : chain) {
        RETURN_IF_ERROR(check_extents(disk));
        RETURN_IF_ERROR(check_table_buffer(*disk));
    }
    for (std::uint32_t i = 0; i < chain.front()->extentdesccount(); ++i)
        RETURN_IF_ERROR(check_same_geometry(chain, i));
    return check_total_size(chain);
}

}  // namespace

errdesc_t* vmdk_check_extent(const extentdesc_t& extent, const std::string& path) {
    cor_assert(extent.fd);
    const geometry_t geometry = geometry_of(extent);
    const char* fault = header_fault(extent);
    if (fault == nullptr)
        fault = geometry_fault(geometry, extent.extentsize);
    if (fault == nullptr)
        fault = directory_fault(geometry, extent.file_sectors);
    return fault == nullptr ? nullptr : errdesc_set_fmt(EINVAL, "Extent refused, %s: %s", fault, path.c_str());
}

errdesc_t* vmdk_check_chain(vmdkdesc_t* vmdkdesc) {
    const bool named_sparse = !vmdkdesc->extentdesc.empty() && is_sparse(*vmdkdesc->extentdesc.front());
    const chain_t chain = vmdk_mapped_disks(vmdkdesc);
    errdesc_t* e = check_chain(chain);
    if (e == nullptr && named_sparse && !vmdkdesc->datastore_direct)
        e = check_shown_flat(vmdkdesc);
    if (e != nullptr) {
        const errdesc_keeper_t keep;
        for (vmdkdesc_t* disk : chain)
            vmdk_close_extentfiles(disk);
    }
    return e;
}

}  // namespace mirador
