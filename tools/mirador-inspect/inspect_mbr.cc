// SPDX-License-Identifier: Apache-2.0
#include <cerrno>

#include "appliance/lib/mbr.h"
#include "tools/mirador-inspect/inspect.h"
#include "tools/mirador-inspect/inspect_json.h"

namespace mirador {
namespace {

json_ptr chs_json(const chs_t& chs) {
    json_ptr json = json_map();
    json_add(json, "cylinder", json_number(chs.cylinder()));
    json_add(json, "head", json_number(chs.head));
    json_add(json, "sector", json_number(chs.sector()));
    return json;
}

json_ptr entry_json(const part_table_entry_t& entry) {
    json_ptr json = json_map();
    json_add(json, "status", json_number(entry.status));
    json_add(json, "bootable", json_bool((entry.status & part_table_entry_t::status_bootable) != 0));
    json_add(json, "type", json_number(entry.type));
    json_add(json, "first_sector_chs", chs_json(entry.first_sector_chs));
    json_add(json, "last_sector_chs", chs_json(entry.last_sector_chs));
    json_add(json, "first_sector_lba", json_number(entry.first_sector_lba));
    json_add(json, "number_of_sectors", json_number(entry.number_of_sectors));
    return json;
}

json_ptr mbr_json(const mbr_t& mbr) {
    json_ptr json = json_map();
    json_add(json, "disk_signature", json_number(mbr.disk_signature));
    json_ptr partitions = json_array();
    for (const part_table_entry_t& entry : mbr.partition)
        json_append(partitions, entry_json(entry));
    json_add(json, "partitions", std::move(partitions));
    return json;
}

}  // namespace

errdesc_t* inspect_mbr(inspect_file_t& file, const inspect_options_t& options, std::FILE* out) {
    mbr_t mbr{};
    RETURN_IF_ERROR(read_mbr(file.fd.get(), &mbr));
    if (!is_valid_mbr(mbr))
        return errdesc_set_fmt(EINVAL, "no master boot record, wrong signature 0x%x: %s", unsigned{mbr.mbr_signature},
                               file.path.c_str());
    if (options.json)
        json_print(mbr_json(mbr), out);
    else
        dump_mbr(mbr, out);
    return nullptr;
}

}  // namespace mirador
