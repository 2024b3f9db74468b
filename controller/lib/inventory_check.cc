// SPDX-License-Identifier: Apache-2.0
#include "controller/lib/inventory_check.h"

#include <algorithm>
#include <cerrno>
#include <string_view>

#include "lib/cor_string.h"
#include "lib/tool_paths.h"

namespace mirador {
namespace {

constexpr std::string_view encoded_in_names = "\"*/:<>?\\|";
constexpr std::size_t encoding_growth = 2;  // a character becomes three
constexpr std::string_view reserved_dir = ".uuid";

// What an error calls the record.
struct subject_t {
    const char* kind;
    const ks_string_t& name;
};

errdesc_t* refuse(const subject_t& subject, const char* field, const char* fault, errnum_t number = EINVAL) {
    return errdesc_set_fmt(number, "%s '%.300s' refused, %s %s", subject.kind, ks_text(subject.name).c_str(), field,
                           fault);
}

errdesc_t* check_length(const subject_t& subject, const char* field, std::size_t length, std::size_t most) {
    return length <= most ? nullptr
                          : refuse(subject, field, cor_format("longer than %zu bytes", most).c_str(), ENAMETOOLONG);
}

// The text as name of one file or directory.
errdesc_t* check_name(const subject_t& subject, const char* field, const ks_string_t& text) {
    if (!ks_is_set(text))
        return refuse(subject, field, "missing");
    if (text->find('/') != std::string::npos || *text == "." || *text == "..")
        return refuse(subject, field, "is no name");
    return check_length(subject, field, text->size(), max_file_name);
}

// The text as value in a query: it is sent as it is.
errdesc_t* check_query(const subject_t& subject, const char* field, const std::string& text) {
    const auto travels = [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte > ' ' && byte != 0x7f && std::string_view("\"#%&+<>?\\").find(c) == std::string_view::npos;
    };
    return std::all_of(text.begin(), text.end(), travels) ? nullptr : refuse(subject, field, "cannot stand in a URL");
}

errdesc_t* check_host(const subject_t& subject, const ks_string_t& host) {
    if (!ks_is_set(host))
        return refuse(subject, "host name", "missing");
    if (host->front() == '.' || host->find('/') != std::string::npos)
        return refuse(subject, "host name", "is no name");
    RETURN_IF_ERROR(check_length(subject, "host name", host->size(), max_host_name));
    return check_query(subject, "host name", *host);
}

errdesc_t* check_folder(const subject_t& subject, const ks_string_t& name) {
    RETURN_IF_ERROR(check_name(subject, "folder", name));
    return *name == reserved_dir ? refuse(subject, "folder", "is reserved") : nullptr;
}

errdesc_t* check_uuid(const subject_t& subject, const ks_string_t& uuid) {
    RETURN_IF_ERROR(check_name(subject, "uuid", uuid));
    RETURN_IF_ERROR(check_length(subject, "uuid", uuid->size(), max_uuid));
    return check_query(subject, "uuid", *uuid);
}

// The name is encoded before it names a directory, which is what it must fit.
errdesc_t* check_vm_name(const subject_t& subject) {
    const std::string& name = ks_text(subject.name);
    if (name.empty())
        return refuse(subject, "name", "missing");
    const auto is_encoded = [](char c) { return encoded_in_names.find(c) != std::string_view::npos; };
    auto encoded = static_cast<std::size_t>(std::count_if(name.begin(), name.end(), is_encoded));
    if (name.back() == '.')
        encoded++;
    return check_length(subject, "name, encoded,", name.size() + encoding_growth * encoded, max_file_name);
}

bool climbs(std::string_view path) {
    while (!path.empty()) {
        const std::string_view component = path.substr(0, path.find('/'));
        if (component == "..")
            return true;
        path.remove_prefix(std::min(component.size() + 1, path.size()));
    }
    return false;
}

errdesc_t* check_path(const subject_t& subject, const char* field, const ks_string_t& path, std::size_t most) {
    if (!ks_is_set(path))
        return refuse(subject, field, "missing");
    RETURN_IF_ERROR(check_length(subject, field, path->size(), most));
    const std::string_view name = last_component(*path);
    if (name.empty() || name == "." || name == "..")
        return refuse(subject, field, "names no file");
    return check_length(subject, field, name.size(), max_file_name);
}

errdesc_t* check_written_path(const subject_t& subject, const char* field, const ks_string_t& path, std::size_t most) {
    RETURN_IF_ERROR(check_path(subject, field, path, most));
    return climbs(*path) ? refuse(subject, field, "climbs by \"..\"") : nullptr;
}

errdesc_t* check_datastore(const subject_t& subject, const ks_vm_config_t& vmc) {
    if (ks_is_set(vmc.datastore_uuid))
        RETURN_IF_ERROR(check_name(subject, "datastore uuid", vmc.datastore_uuid));
    if (ks_is_set(vmc.datastore_name))
        RETURN_IF_ERROR(check_name(subject, "datastore name", vmc.datastore_name));
    return nullptr;
}

errdesc_t* check_vmx_path(const subject_t& subject, const ks_vm_config_t& vmc) {
    RETURN_IF_ERROR(check_written_path(subject, "VMX path", vmc.vmx_path, max_inventory_path));
    if (!vmc.vmx_path->ends_with(vmc.is_template ? ".vmtx" : ".vmx"))
        return refuse(subject, "VMX path", "does not end in .vmx or .vmtx");
    const std::string& key = ks_is_set(vmc.datastore_uuid) ? *vmc.datastore_uuid : ks_text(vmc.datastore_name);
    const std::size_t cached = tool_paths().cache_dir.size() + 1 + key.size() + 1 + vmc.vmx_path->size();
    return check_length(subject, "VMX path, in the cache,", cached, max_link_path);
}

}  // namespace

errdesc_t* ks_hypervisor_config_check(const ks_hypervisor_config_t& hvc) {
    return check_host({"Hypervisor", hvc.hostname}, hvc.hostname);
}

errdesc_t* ks_vm_folder_check(const ks_vm_folder_t& fldr) {
    const subject_t subject = {"Folder", fldr.fldr_name};
    RETURN_IF_ERROR(check_folder(subject, fldr.fldr_name));
    return ks_is_set(fldr.fldr_uuid) ? nullptr : refuse(subject, "uuid", "missing");
}

errdesc_t* ks_vm_config_check(const ks_vm_config_t& vmc) {
    const subject_t subject = {"Virtual machine", vmc.vm_name};
    RETURN_IF_ERROR(check_vm_name(subject));
    RETURN_IF_ERROR(check_uuid(subject, vmc.uuid));
    RETURN_IF_ERROR(check_host(subject, vmc.hv_hostname));
    if (ks_is_set(vmc.fldr_name))
        RETURN_IF_ERROR(check_folder(subject, vmc.fldr_name));
    RETURN_IF_ERROR(check_datastore(subject, vmc));
    RETURN_IF_ERROR(check_vmx_path(subject, vmc));
    return check_length(subject, "snapshot directory", ks_text(vmc.snapshot_directory).size(), max_inventory_path);
}

errdesc_t* ks_vdisk_check(const ks_vdisk_t& vd) {
    const subject_t subject = {"Disk", vd.name};
    RETURN_IF_ERROR(check_path(subject, "head descriptor path", vd.head_ascii_path, max_link_path));
    RETURN_IF_ERROR(check_path(subject, "head extent path", vd.head_extent_path, max_inventory_path));
    RETURN_IF_ERROR(check_written_path(subject, "base descriptor path", vd.base_ascii_path, max_link_path));
    return check_written_path(subject, "base extent path", vd.base_extent_path, max_inventory_path);
}

errdesc_t* ks_vdisk_count_check(const list_t<ks_vdisk_t>& disks, const ks_string_t& vm_name) {
    int exported = 0;
    list_iter(disks, [&](const ks_vdisk_t& vd) {
        exported += vd.independent ? 0 : 1;
        return true;
    });
    if (exported <= max_exported_disks)
        return nullptr;
    return refuse({"Virtual machine", vm_name},
                  "disks:", cor_format("%d, more than %d", exported, max_exported_disks).c_str());
}

}  // namespace mirador
