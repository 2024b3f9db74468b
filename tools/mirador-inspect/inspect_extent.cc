// SPDX-License-Identifier: Apache-2.0
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "tools/mirador-inspect/inspect.h"
#include "tools/mirador-inspect/inspect_extent.h"
#include "vmware/lib/vmdk/chain_check.h"
#include "vmware/lib/vmdk/vmdk_extent.h"
#include "vmware/lib/vmdk/vmdk_graindir.h"

namespace mirador {
namespace {

constexpr std::size_t gt_entry_size = sizeof(std::uint32_t);

// Takes the kind, and with it the size, from the header's magic word.
errdesc_t* recognize(const std::string& path, extentdesc_t* extent) {
    const std::uint32_t magic = extent->hdr.cow.magic;
    if (extent->hdr_size >= sizeof(sparsehdr_t) && magic == sparsehdr_t::magic_value) {
        extent->extenttype = ET_SPARSE;
        extent->extentsize = extent->hdr.sparse.capacity;
        return nullptr;
    }
    if (extent->hdr_size == sizeof(cowdiskhdr_t) && magic == cowdiskhdr_t::magic_value) {
        extent->extenttype = ET_VMFSSPARSE;
        extent->extentsize = extent->hdr.cow.numsectors;
        return nullptr;
    }
    return errdesc_set_fmt(EINVAL, "no sparse and no copy-on-write extent: %s", path.c_str());
}

// A record of a disk whose one extent is the file.
errdesc_t* make_disk(inspect_file_t* file, vmdkdesc_t* disk) {
    auto extent = std::make_unique<extentdesc_t>();
    struct stat st = {};
    if (fstat(file->fd.get(), &st) != 0)
        return errdesc_set_str(errno, file->path);
    extent->extentname = file->path;
    extent->file_sectors = static_cast<std::uint64_t>(st.st_size) / sector_size;
    extent->fd = std::move(file->fd);
    RETURN_IF_ERROR(vmdk_read_extent_header(extent.get()));
    RETURN_IF_ERROR(recognize(file->path, extent.get()));
    disk->extentdesc.push_back(std::move(extent));
    return nullptr;
}

// Grain tables never share sectors, so all of them together fit the file. One that names a table again and again would
// print without end.
errdesc_t* check_tables_fit(const extentdesc_t& extent) {
    std::uint64_t tables = 0;
    for (const std::uint32_t sector : extent.graindir.gd_entry)
        tables += sector != 0 ? 1 : 0;
    if (tables * extent.graindir.numgtespergt * gt_entry_size > extent.file_sectors * sector_size)
        return errdesc_set_fmt(EINVAL, "grain tables overlap: %s", extent.extentname.c_str());
    return nullptr;
}

void dump_header(const extentdesc_t& extent, std::FILE* out) {
    if (extent.extenttype != ET_SPARSE) {
        vmdk_dump_cowdiskhdr(extent.hdr.cow, out);
        return;
    }
    // The printer takes the line-end characters, which it does not show, for granted.
    sparsehdr_t hdr = extent.hdr.sparse;
    if (!vmdk_line_ends_intact(hdr)) {
        std::fputs("line-end characters are damaged\n", out);
        std::memcpy(&hdr.singleendlinechar, "\n \r\n", 4);
    }
    vmdk_dump_sparsehdr(hdr, out);
}

void dump_directory(const graindir_t& dir, std::FILE* out) {
    for (std::uint32_t gde = 0; gde < dir.gd_entry_count; gde++)
        std::fprintf(out, "extent[0].gde[%u] = %u\n", gde, dir.gd_entry[gde]);
}

errdesc_t* print_text(vmdkdesc_t* disk, bool grains, std::FILE* out) {
    const extentdesc_t& extent = *disk->extentdesc.front();
    dump_header(extent, out);
    RETURN_IF_ERROR(inspect_open_directory(disk, grains));
    if (grains)
        return vmdk_dump_graindir(disk, out);
    dump_directory(extent.graindir, out);
    return nullptr;
}

}  // namespace

errdesc_t* inspect_open_directory(vmdkdesc_t* disk, bool grains) {
    const extentdesc_t& extent = *disk->extentdesc.front();
    RETURN_IF_ERROR(vmdk_check_extent(extent, extent.extentname));
    RETURN_IF_ERROR(vmdk_open_graindir(disk));
    return grains ? check_tables_fit(extent) : nullptr;
}

errdesc_t* inspect_extent(inspect_file_t& file, const inspect_options_t& options, std::FILE* out) {
    vmdkdesc_t disk;
    RETURN_IF_ERROR(make_disk(&file, &disk));
    return options.json ? inspect_extent_json(&disk, options.grains, out) : print_text(&disk, options.grains, out);
}

}  // namespace mirador
