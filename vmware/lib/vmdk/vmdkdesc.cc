// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmdk/vmdkdesc.h"

#include <cinttypes>

namespace mirador {
namespace {

const char* text_or_null(const std::optional<std::string>& text) {
    return text ? text->c_str() : "(null)";
}

void dump_extent(const extentdesc_t& extent, std::FILE* stream) {
    std::fprintf(stream, "vmdkdesc.extentdesc.version = %u\n", extent.version);
    std::fprintf(stream, "vmdkdesc.extentdesc.mode = %u\n", extent.mode);
    std::fprintf(stream, "vmdkdesc.extentdesc.extentsize = %" PRIu64 "\n", extent.extentsize);
    std::fprintf(stream, "vmdkdesc.extentdesc.extentoffset = %" PRIu64 "\n", extent.extentoffset);
    std::fprintf(stream, "vmdkdesc.extentdesc.extenttype = %u\n", extent.extenttype);
    std::fprintf(stream, "vmdkdesc.extentdesc.extentname = %s\n", extent.extentname.c_str());
}

void dump_diskdb(const diskdb_t& db, std::FILE* stream) {
    std::fprintf(stream, "vmdkdesc.db.hwversion = %u\n", db.hwversion);
    std::fprintf(stream, "vmdkdesc.db.cylinders = %u\n", db.cylinders);
    std::fprintf(stream, "vmdkdesc.db.heads = %u\n", db.heads);
    std::fprintf(stream, "vmdkdesc.db.sectors = %u\n", db.sectors);
    std::fprintf(stream, "vmdkdesc.db.adaptertype = %u\n", db.adaptertype);
    std::fprintf(stream, "vmdkdesc.db.toolsversion = %u\n", db.toolsversion);
    std::fprintf(stream, "vmdkdesc.db.uuid = %s\n", db.uuid.c_str());
    std::fprintf(stream, "vmdkdesc.db.longcontentid = %s\n", db.longcontentid.c_str());
}

}  // namespace

void vmdk_free_vmdkdesc(vmdkdesc_t* vmdkdesc) {
    *vmdkdesc = {};
}

void vmdk_dump_disk_desc(const vmdkdesc_t* vmdkdesc, std::FILE* stream) {
    if (!vmdkdesc) {
        std::fprintf(stream, "vmdkdesc is NULL");
        return;
    }
    const bool named = !vmdkdesc->filename.empty();
    std::fprintf(stream, "---------------dump------------\n");
    std::fprintf(stream, "vmdkdesc.version = %u\n", vmdkdesc->version);
    std::fprintf(stream, "vmdkdesc.cid = %x\n", vmdkdesc->cid);
    std::fprintf(stream, "vmdkdesc.pcid = %x\n", vmdkdesc->pcid);
    std::fprintf(stream, "vmdkdesc.createtype = %u\n", vmdkdesc->createtype);
    std::fprintf(stream, "vmdkdesc.filename = %s\n", named ? vmdkdesc->filename.c_str() : "(null)");
    std::fprintf(stream, "vmdkdesc.parentfilenamehint = %s\n", text_or_null(vmdkdesc->parentfilenamehint));
    std::fprintf(stream, "vmdkdesc.change_track_path = %s\n", text_or_null(vmdkdesc->change_track_path));
    std::fprintf(stream, "vmdkdesc.extentdesccount = %u\n", vmdkdesc->extentdesccount());
    for (const auto& extent : vmdkdesc->extentdesc)
        dump_extent(*extent, stream);
    dump_diskdb(vmdkdesc->diskdb, stream);
}

}  // namespace mirador
