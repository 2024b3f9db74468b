// SPDX-License-Identifier: Apache-2.0
#include "tools/mirador-inspect/inspect_vm_json.h"

#include "appliance/autodiscover/vmware.h"
#include "vmware/lib/vmdk/datastore_path.h"
#include "vmware/lib/vmx/vmx_encoding.h"

namespace mirador {
namespace {

constexpr std::uint64_t half_bits = 32;

json_ptr decoded(const std::optional<std::string>& text, const std::string& encoding) {
    return text ? json_text(vmx_decode(*text, encoding)) : json_null();
}

json_ptr snapshot_disks_json(const vmsdsnapshot_t& snapshot, const std::string& encoding) {
    json_ptr disks = json_array();
    for (const vmsddisk_t& disk : snapshot.disk) {
        json_ptr json = json_map();
        json_add(json, "filename", decoded(disk.filename, encoding));
        json_add(json, "node", decoded(disk.node, encoding));
        json_append(disks, std::move(json));
    }
    return disks;
}

json_ptr snapshot_json(const vmsdsnapshot_t& snapshot, std::size_t index, const std::string& encoding) {
    const std::uint64_t created = (std::uint64_t{snapshot.createtimehigh} << half_bits) | snapshot.createtimelow;
    json_ptr json = json_map();
    json_add(json, "index", json_number(index));
    json_add(json, "uid", json_signed(static_cast<std::int64_t>(snapshot.uid)));
    json_add(json, "parentuid", json_signed(static_cast<std::int64_t>(snapshot.parentuid)));
    json_add(json, "filename", decoded(snapshot.filename, encoding));
    json_add(json, "displayname", decoded(snapshot.displayname, encoding));
    json_add(json, "description", decoded(snapshot.description, encoding));
    json_add(json, "create_time_us", json_number(created));
    json_add(json, "disks", snapshot_disks_json(snapshot, encoding));
    return json;
}

}  // namespace

json_ptr error_json(const errdesc_t* e) {
    if (e == nullptr)
        return json_null();
    json_ptr json = json_map();
    json_add(json, "number", json_signed(e->number));
    json_add(json, "string", json_text(e->string));
    return json;
}

json_ptr path_json(const std::string& path) {
    std::string_view below;
    const bool on_datastore = remove_datastore_mount_point(path, &below) == nullptr;
    return json_text(on_datastore ? translate_to_datastore_fs_path(path) : path);
}

json_ptr vmx_device_json(const vmx_address_t& address, const vmx_device_t& device) {
    json_ptr json = json_map();
    json_add(json, "key", json_text(vmx_address_str(address)));
    json_add(json, "bus", json_text(vmx_bus_name(address.bus)));
    json_add(json, "controller", json_number(address.controller));
    json_add(json, "unit", json_number(address.unit));
    json_add(json, "present", json_bool(device.present));
    json_add(json, "filename", json_text(device.filename));
    json_add(json, "mode", json_text(device.mode));
    json_add(json, "device_type", json_text(device.device_type));
    json_add(json, "independent", json_bool(!vmware_can_take_snapshot(device.mode)));
    json_add(json, "ctk_enabled", json_bool(device.ctk_enabled));
    return json;
}

json_ptr vmx_json(const vmxdesc_t& vmx) {
    json_ptr json = json_map();
    json_add(json, "filename", json_text(vmx.filename));
    json_add(json, "dirname", json_text(vmx.dirname));
    json_add(json, "encoding", json_text(vmx.encoding));
    json_add(json, "encoding_known", json_bool(vmx.encoding_known));
    json_add(json, "uuid_bios", json_text(vmx.uuid_bios));
    json_add(json, "uuid_location", json_text(vmx.uuid_location));
    json_add(json, "vc_uuid", json_text(vmx.vc_uuid));
    json_add(json, "displayname", json_text(vmx.displayname));
    json_add(json, "guestos", json_text(vmx.guestos));
    json_add(json, "workingdir", json_text(vmx.workingdir));
    json_add(json, "working_directory", path_json(vmx_working_dir(vmx)));
    json_add(json, "is_template", json_bool(vmx.is_template));
    json_add(json, "ctk_enabled", json_bool(vmx.ctk_enabled));
    json_ptr disks = json_array();
    for (const auto& [address, device] : vmx_disks(vmx))
        json_append(disks, vmx_device_json(address, *device));
    json_add(json, "disks", std::move(disks));
    json_ptr devices = json_array();
    for (const auto& [address, device] : vmx.devices)
        json_append(devices, vmx_device_json(address, device));
    json_add(json, "devices", std::move(devices));
    json_add(json, "lost_lines", json_number(vmx.lost_lines));
    return json;
}

json_ptr vmsd_json(const vmsddesc_t& vmsd) {
    json_ptr json = json_map();
    json_add(json, "filename", json_text(vmsd.filename));
    json_add(json, "encoding", json_text(vmsd.encoding));
    json_add(json, "lastuid", json_signed(static_cast<std::int64_t>(vmsd.lastuid)));
    json_add(json, "numsnapshots", json_signed(vmsd.numsnapshots()));
    json_add(json, "currentuid", json_signed(static_cast<std::int64_t>(vmsd.currentuid)));
    json_ptr snapshots = json_array();
    for (std::size_t i = 0; i < vmsd.snapshot.size(); ++i)
        if (vmsd.snapshot[i].magic != 0)
            json_append(snapshots, snapshot_json(vmsd.snapshot[i], i, vmsd.encoding));
    json_add(json, "snapshots", std::move(snapshots));
    json_add(json, "lost_lines", json_number(vmsd.lost_lines));
    return json;
}

}  // namespace mirador
