// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/vm_proxy_header.h"
#include "tools/mirador-inspect/inspect.h"
#include "tools/mirador-inspect/inspect_json.h"

namespace mirador {
namespace {

json_ptr time_json(std::int32_t sec, std::uint32_t nsec) {
    json_ptr json = json_map();
    json_add(json, "sec", json_signed(sec));
    json_add(json, "nsec", json_number(nsec));
    return json;
}

json_ptr statb_json(const cor_statb_t& statb) {
    json_ptr json = json_map();
    json_add(json, "dev", json_number(statb.dev));
    json_add(json, "short_ino", json_number(statb.short_ino));
    json_add(json, "mode", json_number(statb.mode));
    json_add(json, "nlink", json_number(statb.nlink));
    json_add(json, "uid", json_number(statb.uid));
    json_add(json, "gid", json_number(statb.gid));
    json_add(json, "rdev", json_number(statb.rdev));
    json_add(json, "size", json_signed(statb.size));
    json_add(json, "blksize", json_number(statb.blksize));
    json_add(json, "blocks", json_number(statb.blocks));
    json_add(json, "atime", time_json(statb.atime_sec, statb.atime_nsec));
    json_add(json, "mtime", time_json(statb.mtime_sec, statb.mtime_nsec));
    json_add(json, "ctime", time_json(statb.ctime_sec, statb.ctime_nsec));
    json_add(json, "ino", json_number(statb.ino));
    return json;
}

json_ptr header_json(const vm_proxy_header_t& header) {
    json_ptr json = json_map();
    json_add(json, "magic", json_number(header.magic));
    json_add(json, "version", json_number(header.version));
    json_add(json, "type", json_text(vm_proxy_header_type_str(header.type)));
    json_add(json, "statb", statb_json(header.statb));
    json_add(json, "can_optimize", json_bool(header.can_optimize != 0));
    json_add(json, "can_snapshot", json_bool(header.can_snapshot != 0));
    json_add(json, "path", json_text(header.path));
    json_add(json, "vm_uuid", json_text(header.vm_uuid));
    json_add(json, "hv_name", json_text(header.hv_name));
    json_add(json, "crc", json_number(header.crc));
    return json;
}

}  // namespace

errdesc_t* inspect_proxy(inspect_file_t& file, const inspect_options_t& options, std::FILE* out) {
    std::unique_ptr<vm_proxy_header_t> header;
    RETURN_IF_ERROR(vm_proxy_read_header_checked(file.path, &header));
    if (options.json)
        json_print(header_json(*header), out);
    else
        vm_proxy_header_dump(file.path.c_str(), *header, out);
    return nullptr;
}

}  // namespace mirador
