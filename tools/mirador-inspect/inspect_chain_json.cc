// SPDX-License-Identifier: Apache-2.0
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "tools/mirador-inspect/inspect_vm_json.h"
#include "vmware/lib/vmdk/datastore_containment.h"
#include "vmware/lib/vmdk/datastore_path.h"
#include "vmware/lib/vmdk/vmdk_chain.h"
#include "vmware/lib/vmdk/vmdk_extent.h"
#include "vmware/lib/vmdk/vmdk_open.h"

namespace mirador {
namespace {

// Finds the local file of a disk that the configuration names: relative names in the directory that snapshots go to,
// then beside the configuration. The first that can be read, else the last. Only what a datastore's file may name.
errdesc_t* find_head(const vmxdesc_t& vmx, const std::string& name, std::string* path) {
    for (const std::string& dir : {vmx_working_dir(vmx), vmx.dirname}) {
        RETURN_IF_ERROR(get_preferred_datastore_path(vmdk_get_path(name, dir), path));
        if (access(path->c_str(), R_OK) == 0)
            return datastore_check_contained(vmx.filename, *path);
    }
    return errdesc_set_str(errno, *path);
}

// The size of a file in bytes; null when it is not there.
json_ptr size_json(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? json_signed(st.st_size) : json_null();
}

const char* extent_type_name(extenttype_t type) {
    switch (type) {
        case ET_FLAT:
            return "FLAT";
        case ET_SPARSE:
            return "SPARSE";
        case ET_ZERO:
            return "ZERO";
        case ET_VMFS:
            return "VMFS";
        case ET_VMFSSPARSE:
            return "VMFSSPARSE";
        case ET_VMFSRDM:
            return "VMFSRDM";
        case ET_VMFSRAW:
            return "VMFSRAW";
        case ET_SESPARSE:
            return "SESPARSE";
        case ET_UNKNOWN:
            break;
    }
    return "UNKNOWN";
}

json_ptr extent_json(const vmdkdesc_t& disk, std::uint32_t index) {
    const extentdesc_t& extent = *disk.extentdesc[index];
    const std::string path = vmdk_extent_path(disk, index);
    json_ptr json = json_map();
    json_add(json, "path", path_json(path));
    json_add(json, "type", json_text(extent_type_name(extent.extenttype)));
    json_add(json, "sectors", json_number(extent.extentsize));
    json_add(json, "file_offset", json_number(extent.version));
    json_add(json, "file_size", size_json(path));
    return json;
}

json_ptr link_json(const vmdkdesc_t& disk) {
    json_ptr json = json_map();
    json_add(json, "path", path_json(disk.filename));
    json_add(json, "size", size_json(disk.filename));
    json_add(json, "createtype", json_number(disk.createtype));
    json_add(json, "cid", json_number(disk.cid));
    json_add(json, "pcid", json_number(disk.pcid));
    json_ptr extents = json_array();
    for (std::uint32_t i = 0; i < disk.extentdesccount(); ++i)
        json_append(extents, extent_json(disk, i));
    json_add(json, "extents", std::move(extents));
    return json;
}

// The head's file of changed blocks; its descriptor writes the name with quotes.
json_ptr change_track_json(const vmdkdesc_t& head) {
    if (!head.change_track_path)
        return json_null();
    std::string_view name = *head.change_track_path;
    name = name.substr(name.starts_with('"') ? 1 : 0);
    name = name.substr(0, name.find('"'));
    return name.empty() ? json_null() : path_json(vmdk_get_path(std::string(name), head.dirname));
}

// "<side>_ascii_path" and its kin: descriptor and first extent.
void add_side(const std::string& side, const vmdkdesc_t& disk, const json_ptr& json) {
    const std::string extent = vmdk_extent_path(disk, 0);
    json_add(json, (side + "_ascii_path").c_str(), path_json(disk.filename));
    json_add(json, (side + "_ascii_size").c_str(), size_json(disk.filename));
    json_add(json, (side + "_extent_path").c_str(), path_json(extent));
    json_add(json, (side + "_extent_size").c_str(), size_json(extent));
}

void add_chain(const vmdkdesc_t& head, const json_ptr& json) {
    const vmdkdesc_t& base = *head.vmdk_ancestor_array.back();
    json_add(json, "capacity", json_number(vmdk_size(head)));
    json_add(json, "thin_provisioned", json_bool(base.thin_provisioned));
    add_side("head", head, json);
    add_side("base", base, json);
    json_add(json, "change_track_path", change_track_json(head));
    json_ptr chain = json_array();
    for (const vmdkdesc_t* disk : head.vmdk_ancestor_array)
        json_append(chain, link_json(*disk));
    json_add(json, "chain", std::move(chain));
}

errdesc_t* open_chain(const vmxdesc_t& vmx, const vmx_device_t& device, vmdkdesc_t* head) {
    std::string path;
    RETURN_IF_ERROR(find_head(vmx, device.filename, &path));
    RETURN_IF_ERROR(vmdk_open_checked(path, descriptor_role_t::head, head));
    return vmdk_get_ancestors(head, 0, &head->vmdk_ancestor_array);
}

}  // namespace

void add_chain_json(const vmxdesc_t& vmx, const vmx_device_t& device, const json_ptr& json) {
    vmdkdesc_t head;
    const errdesc_t* const e = open_chain(vmx, device, &head);
    json_add(json, "err", error_json(e));
    if (e == nullptr)
        add_chain(head, json);
}

}  // namespace mirador
