// SPDX-License-Identifier: Apache-2.0
#include <cerrno>

#include "appliance/lib/cor_vdsk_header.h"
#include "appliance/lib/mbr.h"
#include "tools/mirador-inspect/inspect.h"
#include "tools/mirador-inspect/inspect_json.h"

namespace mirador {
namespace {

constexpr off_t sector_bytes = 512;

errdesc_t* read_header(int fd, std::uint32_t sector, cor_vdsk_header_t* h) {
    std::size_t len = sizeof *h;
    RETURN_IF_ERROR(read_sector(fd, off_t{sector} * sector_bytes, &len, h));
    if (len < sizeof *h || !is_cor_vdsk_header(*h))
        return errdesc_set_fmt(ENODATA, "sector %u holds no virtual disk header", sector);
    return nullptr;
}

void add_strings(const cor_vdsk_header_t& h, const json_ptr& json) {
    std::string_view directory;
    std::string_view datastore;
    std::string_view hypervisor;
    std::string_view vm;
    const bool complete = get_vmdk_variable_strings(h, &directory, &datastore, &hypervisor, &vm);
    json_add(json, "path", json_text(directory));
    json_add(json, "ds", json_text(datastore));
    json_add(json, "hv", json_text(hypervisor));
    json_add(json, "vm", json_text(vm));
    json_add(json, "strings_complete", json_bool(complete));
}

json_ptr header_json(const cor_vdsk_header_t& h, std::uint32_t sector) {
    json_ptr json = json_map();
    json_add(json, "sector", json_number(sector));
    json_add(json, "version", json_number(h.version));
    json_add(json, "type", json_number(h.type));
    json_add(json, "cid", json_number(h.cid));
    json_add(json, "size", json_number(h.size));
    json_add(json, "attributes", json_number(h.attributes));
    json_add(json, "createtype", json_number(h.createtype));
    json_add(json, "createtype_name", json_text(cor_vdsk_createtype_str(h.createtype)));
    json_add(json, "disk_uuid", json_text(uuid_value_to_str(h.disk_uuid)));
    json_add(json, "vm_uuid", json_text(uuid_value_to_str(h.vm_uuid)));
    json_add(json, "ds_uuid", json_text(uuid_value_to_str(h.ds_uuid)));
    json_add(json, "change_id", json_text(uuid_value_to_str(h.change_id)));
    json_add(json, "change_suffix", json_number(cor_vdsk_change_suffix(h)));
    json_add(json, "snapshot_time", json_number(cor_vdsk_snapshot_time(h)));
    add_strings(h, json);
    return json;
}

}  // namespace

errdesc_t* inspect_vdsk(inspect_file_t& file, const inspect_options_t& options, std::FILE* out) {
    std::uint32_t sector = options.sector.value_or(no_sector);
    if (!options.sector.has_value())
        RETURN_IF_ERROR(find_free_sector_by_partition(file.fd.get(), &sector));
    cor_vdsk_header_t h{};
    RETURN_IF_ERROR(read_header(file.fd.get(), sector, &h));
    if (options.json)
        json_print(header_json(h, sector), out);
    else
        dump_cor_vdsk_header(h, out);
    return nullptr;
}

}  // namespace mirador
