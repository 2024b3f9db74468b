// SPDX-License-Identifier: Apache-2.0
#include <cinttypes>

#include "lib/cor_assert.h"
#include "vmware/lib/vmdk/vmdk_graindir.h"

namespace mirador {
namespace {

constexpr char line_ends[] = {10, 32, 13, 10};

// The "j" length of a format.
std::intmax_t wide(std::uint64_t value) {
    return static_cast<std::intmax_t>(value);
}

void dump_gtbuf(const vmdkdesc_t& vmdkdesc, std::uint32_t extent, std::uint32_t gde, std::FILE* stream) {
    const std::uint32_t entries = vmdk_table_entries(*vmdkdesc.extentdesc[extent], gde);
    for (std::uint32_t gte = 0; gte < entries; ++gte) {
        if (vmdkdesc.gtbuf[gte] != 0)
            std::fprintf(stream, "extent[%u].gde[%jd].gte[%jd] = %u\n", extent, wide(gde), wide(gte),
                         vmdkdesc.gtbuf[gte]);
    }
}

errdesc_t* dump_extent(vmdkdesc_t* vmdkdesc, std::uint32_t extent, std::FILE* stream) {
    const graindir_t& dir = vmdkdesc->extentdesc[extent]->graindir;
    for (std::uint32_t gde = 0; gde < dir.gd_entry_count; ++gde) {
        std::fprintf(stream, "extent[%u].gde[%jd] = %u\n", extent, wide(gde), dir.gd_entry[gde]);
        RETURN_IF_ERROR(vmdk_fill_gtbuf(vmdkdesc, extent, gde));
        dump_gtbuf(*vmdkdesc, extent, gde, stream);
    }
    return nullptr;
}

}  // namespace

bool vmdk_line_ends_intact(const sparsehdr_t& hdr) {
    return hdr.singleendlinechar == line_ends[0] && hdr.nonendlinechar == line_ends[1] &&
           hdr.doubleendlinechar1 == line_ends[2] && hdr.doubleendlinechar2 == line_ends[3];
}

void vmdk_dump_sparsehdr(const sparsehdr_t& hdr, std::FILE* stream) {
    std::fprintf(stream, "magicnumber = %x\n", hdr.magic);
    std::fprintf(stream, "version = %u\n", hdr.version);
    std::fprintf(stream, "flags = %x\n", hdr.flags);
    std::fprintf(stream, "capacity = %jd sectors\n", wide(hdr.capacity));
    std::fprintf(stream, "grain size = %jd sectors\n", wide(hdr.grainsize));
    std::fprintf(stream, "descriptor offset = %jd sectors\n", wide(hdr.descoffset));
    std::fprintf(stream, "descriptor size = %jd sectors\n", wide(hdr.descsize));
    std::fprintf(stream, "gte per gt = %u\n", hdr.numgtespergt);
    std::fprintf(stream, "rgd offset = %jd sectors\n", wide(hdr.rgdoffset));
    std::fprintf(stream, "gd offset = %jd sectors\n", wide(hdr.gdoffset));
    std::fprintf(stream, "overhead = %jd sectors\n", wide(hdr.overhead));
    std::fprintf(stream, "unclean shutdown = %u\n", hdr.uncleanshutdown);
    cor_assert(hdr.singleendlinechar == line_ends[0]);
    cor_assert(hdr.nonendlinechar == line_ends[1]);
    cor_assert(hdr.doubleendlinechar1 == line_ends[2]);
    cor_assert(hdr.doubleendlinechar2 == line_ends[3]);
}

void vmdk_dump_cowdiskhdr(const cowdiskhdr_t& hdr, std::FILE* stream) {
    std::fprintf(stream, "magicnumber = %x\n", hdr.magic);
    std::fprintf(stream, "version = %u\n", hdr.version);
    std::fprintf(stream, "flags = %x\n", hdr.flags);
    std::fprintf(stream, "capacity = %u sectors\n", hdr.numsectors);
    std::fprintf(stream, "grain size = %u sectors\n", hdr.grainsize);
    std::fprintf(stream, "gd offset = %u sectors\n", hdr.gdoffset);
    std::fprintf(stream, "gd entries = %u\n", hdr.numgdentries);
    std::fprintf(stream, "free sector = %u\n", hdr.freesector);
}

errdesc_t* vmdk_dump_graindir(vmdkdesc_t* vmdkdesc, std::FILE* stream) {
    for (std::uint32_t extent = 0; extent < vmdkdesc->extentdesccount(); ++extent)
        RETURN_IF_ERROR(dump_extent(vmdkdesc, extent, stream));
    return nullptr;
}

}  // namespace mirador
