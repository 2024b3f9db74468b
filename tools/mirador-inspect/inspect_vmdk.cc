// SPDX-License-Identifier: Apache-2.0
#include "tools/mirador-inspect/inspect.h"
#include "tools/mirador-inspect/inspect_json.h"
#include "vmware/lib/vmdk/descriptor_check.h"
#include "vmware/lib/vmdk/vmdkdesc.h"

namespace mirador {
namespace {

// Whether a text said anything that belongs into a descriptor.
bool says_anything(const vmdkdesc_t& desc) {
    return desc.createtype != CT_UNKNOWN || !desc.extentdesc.empty() || desc.version != 0 || desc.cid != 0;
}

json_ptr optional_json(const std::optional<std::string>& text) {
    return text ? json_text(*text) : json_null();
}

json_ptr extent_json(const extentdesc_t& extent) {
    json_ptr json = json_map();
    json_add(json, "version", json_number(extent.version));
    json_add(json, "mode", json_number(extent.mode));
    json_add(json, "extentsize", json_number(extent.extentsize));
    json_add(json, "extentoffset", json_number(extent.extentoffset));
    json_add(json, "extenttype", json_number(extent.extenttype));
    json_add(json, "extentname", json_text(extent.extentname));
    return json;
}

json_ptr diskdb_json(const diskdb_t& db) {
    json_ptr json = json_map();
    json_add(json, "hwversion", json_number(db.hwversion));
    json_add(json, "cylinders", json_number(db.cylinders));
    json_add(json, "heads", json_number(db.heads));
    json_add(json, "sectors", json_number(db.sectors));
    json_add(json, "adaptertype", json_number(db.adaptertype));
    json_add(json, "toolsversion", json_number(db.toolsversion));
    json_add(json, "encoding", json_number(db.encoding));
    json_add(json, "uuid", json_text(db.uuid));
    json_add(json, "longcontentid", json_text(db.longcontentid));
    return json;
}

json_ptr descriptor_json(const vmdkdesc_t& desc, const errdesc_t* fault) {
    json_ptr json = json_map();
    json_add(json, "version", json_number(desc.version));
    json_add(json, "encoding", json_number(desc.encoding));
    json_add(json, "cid", json_number(desc.cid));
    json_add(json, "pcid", json_number(desc.pcid));
    json_add(json, "createtype", json_number(desc.createtype));
    json_add(json, "filename", json_text(desc.filename));
    json_add(json, "parentfilenamehint", optional_json(desc.parentfilenamehint));
    json_add(json, "change_track_path", optional_json(desc.change_track_path));
    json_add(json, "thin_provisioned", json_bool(desc.thin_provisioned));
    json_ptr extents = json_array();
    for (const auto& extent : desc.extentdesc)
        json_append(extents, extent_json(*extent));
    json_add(json, "extents", std::move(extents));
    json_add(json, "db", diskdb_json(desc.diskdb));
    json_add(json, "fault", fault != nullptr ? json_text(fault->string) : json_null());
    return json;
}

}  // namespace

errdesc_t* inspect_vmdk(inspect_file_t& file, const inspect_options_t& options, std::FILE* out) {
    vmdkdesc_t desc;
    errdesc_t* const fault = vmdk_check_descriptor(file.path, descriptor_role_t::head, &desc);
    if (fault != nullptr && !says_anything(desc))
        return fault;
    desc.filename = file.path;
    if (options.json)
        json_print(descriptor_json(desc, fault), out);
    else
        vmdk_dump_disk_desc(&desc, out);
    return fault;
}

}  // namespace mirador
