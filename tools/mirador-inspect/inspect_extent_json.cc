// SPDX-License-Identifier: Apache-2.0
#include <span>

#include "tools/mirador-inspect/inspect_extent.h"
#include "tools/mirador-inspect/inspect_json.h"
#include "vmware/lib/vmdk/vmdk_graindir.h"

namespace mirador {
namespace {

json_ptr sparse_json(const sparsehdr_t& hdr) {
    json_ptr json = json_map();
    json_add(json, "magic", json_number(hdr.magic));
    json_add(json, "version", json_number(hdr.version));
    json_add(json, "flags", json_number(hdr.flags));
    json_add(json, "capacity", json_number(hdr.capacity));
    json_add(json, "grainsize", json_number(hdr.grainsize));
    json_add(json, "descoffset", json_number(hdr.descoffset));
    json_add(json, "descsize", json_number(hdr.descsize));
    json_add(json, "numgtespergt", json_number(hdr.numgtespergt));
    json_add(json, "rgdoffset", json_number(hdr.rgdoffset));
    json_add(json, "gdoffset", json_number(hdr.gdoffset));
    json_add(json, "overhead", json_number(hdr.overhead));
    json_add(json, "uncleanshutdown", json_number(hdr.uncleanshutdown));
    json_add(json, "line_ends_intact", json_bool(vmdk_line_ends_intact(hdr)));
    return json;
}

json_ptr cow_json(const cowdiskhdr_t& hdr) {
    json_ptr json = json_map();
    json_add(json, "magic", json_number(hdr.magic));
    json_add(json, "version", json_number(hdr.version));
    json_add(json, "flags", json_number(hdr.flags));
    json_add(json, "numsectors", json_number(hdr.numsectors));
    json_add(json, "grainsize", json_number(hdr.grainsize));
    json_add(json, "gdoffset", json_number(hdr.gdoffset));
    json_add(json, "numgdentries", json_number(hdr.numgdentries));
    json_add(json, "freesector", json_number(hdr.freesector));
    return json;
}

json_ptr numbers_json(std::span<const std::uint32_t> numbers) {
    json_ptr json = json_array();
    for (const std::uint32_t number : numbers)
        json_append(json, json_number(number));
    return json;
}

// The allocated tables, each with those of its entries that stand for sectors of the extent.
errdesc_t* print_tables(vmdkdesc_t* disk, std::FILE* out) {
    const extentdesc_t& extent = *disk->extentdesc.front();
    const char* separator = "";
    for (std::uint32_t gde = 0; gde < extent.graindir.gd_entry_count; gde++) {
        if (extent.graindir.gd_entry[gde] == 0)
            continue;
        RETURN_IF_ERROR(vmdk_fill_gtbuf(disk, 0, gde));
        const auto table = std::span<const std::uint32_t>(disk->gtbuf).first(vmdk_table_entries(extent, gde));
        json_ptr json = json_map();
        json_add(json, "gde", json_number(gde));
        json_add(json, "gte", numbers_json(table));
        std::fprintf(out, "%s\n%s", separator, json_line(json).c_str());
        separator = ",";
    }
    return nullptr;
}

}  // namespace

errdesc_t* inspect_extent_json(vmdkdesc_t* disk, bool grains, std::FILE* out) {
    const extentdesc_t& extent = *disk->extentdesc.front();
    const bool sparse = extent.extenttype == ET_SPARSE;
    std::fprintf(out, "{\n\"kind\": \"%s\",\n\"header\": %s", sparse ? "sparse" : "cow",
                 json_line(sparse ? sparse_json(extent.hdr.sparse) : cow_json(extent.hdr.cow)).c_str());
    errdesc_t* fault = inspect_open_directory(disk, grains);
    if (fault == nullptr)
        std::fprintf(out, ",\n\"directory\": %s", json_line(numbers_json(extent.graindir.gd_entry)).c_str());
    if (fault == nullptr && grains) {
        std::fputs(",\n\"tables\": [", out);
        fault = print_tables(disk, out);
        std::fputs("]", out);
    }
    std::fprintf(out, ",\n\"fault\": %s\n}\n", fault != nullptr ? json_line(json_text(fault->string)).c_str() : "null");
    return fault;
}

}  // namespace mirador
