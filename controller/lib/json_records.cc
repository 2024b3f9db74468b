// SPDX-License-Identifier: Apache-2.0
#include "controller/lib/json_records.h"

#include <algorithm>
#include <utility>

#include "controller/lib/json_fields.h"
#include "lib/cor_assert.h"

namespace mirador {
namespace {

constexpr std::int32_t default_corcbt_percent = 5;
constexpr std::int32_t max_corcbt_percent = 100;

void assert_element(json_object* jo_elem) {
    cor_assert_text(jo_elem != nullptr, "jo_elem != ((void *)0)");
}

std::uint32_t uint32_member(json_object* obj, const char* name) {
    return static_cast<std::uint32_t>(json_int_member(obj, name));
}

std::uint64_t uint64_member(json_object* obj, const char* name) {
    return static_cast<std::uint64_t>(json_int64_member(obj, name));
}

std::uint32_t uint32_or_0(json_object* obj, const char* name) {
    return json_member(obj, name) == nullptr ? 0 : uint32_member(obj, name);
}

// A flag that is off for 0 alone, so on where it is missing.
bool not_0(json_object* obj, const char* name) {
    return json_int_member(obj, name) != 0;
}

// A flag that is on for 1 alone.
bool is_1(json_object* obj, const char* name) {
    return json_int64_member(obj, name) == 1;
}

bool is_template_path(const ks_string_t& vmx_path) {
    const std::size_t dot = ks_text(vmx_path).rfind('.');
    return dot != std::string::npos && vmx_path->substr(dot) == ".vmtx";
}

std::uint32_t corcbt_percent(json_object* obj) {
    const std::int32_t percent = json_int_member(obj, "corcbt_size_percentage");
    if (percent < 1)
        return default_corcbt_percent;
    return static_cast<std::uint32_t>(std::min(percent, max_corcbt_percent));
}

// The paths come as a text that holds a JSON array itself; null when they don't.
std::unique_ptr<datastore_paths_t> paths_member(json_object* obj) {
    const json_ptr array = json_parse_text(ks_text(json_text_member(obj, "path")));
    if (json_object_is_type(array.get(), json_type_array) == 0)
        return nullptr;
    auto paths = list_new<std::string>();
    for (std::size_t i = 0; i < json_object_array_length(array.get()); i++) {
        json_object* const path = json_object_array_get_idx(array.get(), i);
        if (json_object_is_type(path, json_type_string) != 0)
            list_add(*paths, std::string(json_object_get_string(path)));
    }
    return paths;
}

void add_text_if_set(json_object* obj, const char* name, const ks_string_t& text) {
    if (text)
        json_add_string_field(obj, name, text);
}

void read_vm_texts(json_object* obj, ks_vm_config_t* vmc) {
    vmc->hv_hostname = json_text_member(obj, "hv_hostname");
    vmc->vm_name = json_text_member(obj, "name");
    vmc->uuid = json_text_member(obj, "uuid");
    vmc->fldr_name = json_text_member(obj, "folder");
    vmc->snap_suffix = json_text_member(obj, "snap_suffix");
    vmc->vmx_path = json_text_member(obj, "vmx_path");
    vmc->snapshot_directory = json_text_member(obj, "snapshot_directory");
    vmc->datastore_name = json_text_member(obj, "datastore_name");
    vmc->datastore_path = json_text_member(obj, "datastore_path");
    vmc->datastore_uuid = json_text_member(obj, "datastore_uuid");
    vmc->datacenter = json_text_member(obj, "datacenter");
    vmc->vm_folder = json_text_member(obj, "vm_folder");
    vmc->host_system = json_text_member(obj, "host_system");
    vmc->resource_pool = json_text_member(obj, "resource_pool");
    vmc->error = json_text_member(obj, "error");
}

void read_vm_numbers(json_object* obj, ks_vm_config_t* vmc) {
    vmc->last_discover_time = uint32_member(obj, "last_discover_time");
    vmc->controller_export_enabled = not_0(obj, "controller_export_enabled");
    vmc->export_enabled = not_0(obj, "export_enabled");
    vmc->discover_enabled = not_0(obj, "discover_enabled");
    vmc->alerts_enabled = not_0(obj, "alerts_enabled");
    vmc->quiesce_enabled = uint32_or_0(obj, "quiesce_enabled") != 0;
    vmc->use_cbt = is_1(obj, "use_cbt");
    vmc->cbt_reset_pending = is_1(obj, "cbt_reset_pending");
    vmc->cbt_reset_time = uint32_or_0(obj, "cbt_reset_time");
    vmc->cbt_reset_time_prev = uint32_or_0(obj, "cbt_reset_time_prev");
    vmc->snap_exists = json_int_member(obj, "snap_exists");
}

void read_disk_files(json_object* obj, ks_vdisk_t* vd) {
    vd->base_ascii_path = json_text_member(obj, "base_ascii_path");
    vd->base_extent_path = json_text_member(obj, "base_extent_path");
    vd->base_ascii_size = uint64_member(obj, "base_ascii_size");
    vd->base_extent_size = uint64_member(obj, "base_extent_size");
    vd->head_ascii_path = json_text_member(obj, "head_ascii_path");
    vd->head_extent_path = json_text_member(obj, "head_extent_path");
    vd->head_ascii_size = uint64_member(obj, "head_ascii_size");
    vd->head_extent_size = uint64_member(obj, "head_extent_size");
}

}  // namespace

ks_hypervisor_config_t json_to_hv_config(json_object* jo_elem) {
    assert_element(jo_elem);
    ks_hypervisor_config_t hvc;
    hvc.hostname = json_text_member(jo_elem, "hostname");
    hvc.login_name = json_text_member(jo_elem, "login_name");
    if (ks_string_t password = json_text_member(jo_elem, "password"))
        hvc.password = secret_t(std::move(*password));
    hvc.hv_port = uint32_member(jo_elem, "hv_port");
    hvc.hv_data_port = uint32_member(jo_elem, "hv_data_port");
    hvc.hv_type = json_text_member(jo_elem, "hv_type");
    return hvc;
}

ks_vm_config_t json_to_vm_config(json_object* jo_elem) {
    assert_element(jo_elem);
    ks_vm_config_t vmc;
    read_vm_texts(jo_elem, &vmc);
    read_vm_numbers(jo_elem, &vmc);
    vmc.is_template = is_template_path(vmc.vmx_path);
    return vmc;
}

ks_vm_folder_t json_to_folder(json_object* jo_elem) {
    assert_element(jo_elem);
    return {
        .numVMs = uint32_member(jo_elem, "numVms"),
        .fldr_name = json_text_member(jo_elem, "name"),
        .fldr_uuid = json_text_member(jo_elem, "uuid"),
    };
}

ks_vdisk_t json_to_vdisk(json_object* jo_elem) {
    assert_element(jo_elem);
    ks_vdisk_t vd;
    vd.vhost_uuid = json_text_member(jo_elem, "vhost_uuid");
    vd.name = json_text_member(jo_elem, "name");
    vd.changeid = json_text_member(jo_elem, "changeid");
    vd.changeid_prev = json_text_member(jo_elem, "changeid_prev");
    vd.changeid_incr = json_text_member(jo_elem, "changeid_incr");
    vd.changeid_base = json_text_member(jo_elem, "changeid_base");
    vd.corcbt_size_percentage = corcbt_percent(jo_elem);
    vd.cbt_reset_time_vdisk = uint32_or_0(jo_elem, "cbt_reset_time_vdisk");
    if (json_member(jo_elem, "flat_file_size") != nullptr)
        vd.flat_file_size = uint64_member(jo_elem, "flat_file_size");
    read_disk_files(jo_elem, &vd);
    vd.independent = is_1(jo_elem, "independent");
    vd.thinprovisioned = is_1(jo_elem, "thin_provisioned");
    return vd;
}

ks_ds_config_t json_to_ds_config(json_object* jo_elem) {
    assert_element(jo_elem);
    return {
        .hv = json_text_member(jo_elem, "hv_hostname"),
        .dc = json_text_member(jo_elem, "datacenter"),
        .hostsystem = json_text_member(jo_elem, "esx_host"),
        .name = json_text_member(jo_elem, "name"),
        .uuid = json_text_member(jo_elem, "uuid"),
        .url = json_text_member(jo_elem, "url"),
        .type = json_text_member(jo_elem, "type"),
        .timestamp = static_cast<std::int32_t>(json_int64_member(jo_elem, "timestamp")),
        .accessible = not_0(jo_elem, "accessible") ? 1U : 0U,
        .capacity = uint64_member(jo_elem, "capacity"),
        .free_space = uint64_member(jo_elem, "free"),
        .paths = paths_member(jo_elem),
        .is_local_dc = not_0(jo_elem, "is_local_dc"),
    };
}

ks_nfs_datastore_config_t json_to_nfs_datastore_config(json_object* jo_elem) {
    assert_element(jo_elem);
    return {
        .hostname = json_text_member(jo_elem, "hostname"),
        .path = json_text_member(jo_elem, "path"),
        .options = json_text_member(jo_elem, "options"),
    };
}

json_ptr ks_vdisk_to_json_object(const ks_vdisk_t* vd) {
    cor_assert(vd != nullptr);
    json_ptr obj(json_object_new_object());
    json_add_string_field(obj.get(), "vhost_uuid", vd->vhost_uuid);
    json_add_string_field(obj.get(), "name", vd->name);
    json_add_string_field(obj.get(), "changeid", vd->changeid);
    add_text_if_set(obj.get(), "changeid_prev", vd->changeid_prev);
    add_text_if_set(obj.get(), "changeid_incr", vd->changeid_incr);
    add_text_if_set(obj.get(), "changeid_base", vd->changeid_base);
    json_add_int_field(obj.get(), "corcbt_size_percentage", static_cast<std::int32_t>(vd->corcbt_size_percentage));
    json_add_int_field(obj.get(), "cbt_reset_time_vdisk", static_cast<std::int32_t>(vd->cbt_reset_time_vdisk));
    json_add_uint64_field(obj.get(), "flat_file_size", vd->flat_file_size);
    return obj;
}

bool encode_datastore_path(json_object* array, const ks_string_t& path) {
    if (array != nullptr && path)
        json_object_array_add(array, json_object_new_string(path->c_str()));
    return true;
}

}  // namespace mirador
