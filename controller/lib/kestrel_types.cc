// SPDX-License-Identifier: Apache-2.0
#include "controller/lib/kestrel_types.h"

#include <utility>

#include "lib/cor_assert.h"

namespace mirador {
namespace {

template <typename record_t>
void clear(record_t* record) {
    cor_assert(record != nullptr);
    *record = {};
}

bool text_differs(const ks_string_t& a, const ks_string_t& b) {
    return a && b && *a != *b;
}

}  // namespace

// NOLINTNEXTLINE(cert-err58-cpp)
const ks_hypervisor_type_name_t HYPERVISOR_TYPE_TABLE[] = {
    {HYPERVISOR_TYPE_UNKNOWN, "unknown"},  {HYPERVISOR_TYPE_VMWARE_ESX, "ESX"},
    {HYPERVISOR_TYPE_VMWARE_ESXi, "ESXi"}, {HYPERVISOR_TYPE_VMWARE_VCENTER, "vCenter"},
    {HYPERVISOR_TYPE_AUTO, "auto"},        {HYPERVISOR_TYPE_UNKNOWN, nullptr},
};

ks_hypervisor_type_t ks_hypervisor_get_type(const std::string& name) {
    for (const ks_hypervisor_type_name_t* entry = HYPERVISOR_TYPE_TABLE; entry->name != nullptr; entry++)
        if (name == entry->name)
            return entry->type;
    return HYPERVISOR_TYPE_UNKNOWN;
}

const char* ks_hypervisor_get_type_str(ks_hypervisor_type_t type) {
    for (const ks_hypervisor_type_name_t* entry = HYPERVISOR_TYPE_TABLE; entry->name != nullptr; entry++)
        if (type == entry->type)
            return entry->name;
    return "(unknown)";
}

const std::string& ks_text(const ks_string_t& text) {
    static const std::string empty;
    return text ? *text : empty;
}

bool ks_is_set(const ks_string_t& text) {
    return text && !text->empty();
}

void my_strptr_free(ks_string_t* text) {
    cor_assert_text(text != nullptr, "handle != ((void *)0)");
    text->reset();
}

void ks_hypervisor_config_free(ks_hypervisor_config_t* hvc) {
    clear(hvc);
}

void ks_vm_config_free(ks_vm_config_t* vmc) {
    clear(vmc);
}

void ks_vm_folder_free(ks_vm_folder_t* fldr) {
    clear(fldr);
}

void ks_vdisk_free(ks_vdisk_t* vd) {
    clear(vd);
}

void ks_ds_config_free(ks_ds_config_t* dsc) {
    clear(dsc);
}

void ks_nfs_datastore_config_free(ks_nfs_datastore_config_t* nfs) {
    clear(nfs);
}

#define ASSERT_ABSENT(field) cor_assert_text(!dst->field, "dst->" #field " == ((void *)0)")

void ks_hypervisor_config_copy(ks_hypervisor_config_t* dst, const ks_hypervisor_config_t* src) {
    cor_assert(dst != nullptr && src != nullptr);
    ASSERT_ABSENT(hostname);
    ASSERT_ABSENT(login_name);
    ASSERT_ABSENT(password);
    ASSERT_ABSENT(hv_type);
    *dst = *src;
}

void ks_vm_config_copy(ks_vm_config_t* dst, const ks_vm_config_t* src) {
    cor_assert(dst != nullptr && src != nullptr);
    ASSERT_ABSENT(hv_hostname);
    ASSERT_ABSENT(vm_name);
    ASSERT_ABSENT(uuid);
    ASSERT_ABSENT(fldr_name);
    ASSERT_ABSENT(snap_suffix);
    ASSERT_ABSENT(vmx_path);
    ASSERT_ABSENT(snapshot_directory);
    ASSERT_ABSENT(datastore_name);
    ASSERT_ABSENT(datastore_path);
    ASSERT_ABSENT(datastore_uuid);
    ASSERT_ABSENT(datacenter);
    ASSERT_ABSENT(vm_folder);
    ASSERT_ABSENT(host_system);
    ASSERT_ABSENT(resource_pool);
    ASSERT_ABSENT(error);
    *dst = *src;
}

#undef ASSERT_ABSENT

void ks_vdisk_copy(ks_vdisk_t* dst, const ks_vdisk_t* src) {
    cor_assert(dst != nullptr && src != nullptr);
    *dst = *src;
}

bool datastore_path_copy(datastore_paths_t* paths, const std::string& path) {
    cor_assert(paths != nullptr);
    list_add(*paths, path);
    return true;
}

errdesc_t* ks_ds_config_copy(const ks_ds_config_t* src, std::unique_ptr<ks_ds_config_t>* dst) {
    cor_assert(src != nullptr && dst != nullptr);
    *dst = std::make_unique<ks_ds_config_t>(ks_ds_config_t{
        .hv = src->hv,
        .dc = src->dc,
        .hostsystem = src->hostsystem,
        .name = src->name,
        .uuid = src->uuid,
        .url = src->url,
        .type = src->type,
        .timestamp = src->timestamp,
        .accessible = src->accessible,
        .capacity = src->capacity,
        .free_space = src->free_space,
        .paths = list_new<std::string>(),
        .is_local_dc = src->is_local_dc,
    });
    if (src->paths)
        list_iter(std::as_const(*src->paths),
                  [&](const std::string& path) { return datastore_path_copy((*dst)->paths.get(), path); });
    return nullptr;
}

bool ks_vm_config_diff(const ks_vm_config_t* a, const ks_vm_config_t* b) {
    cor_assert(a != nullptr && b != nullptr);
    for (const auto text : {&ks_vm_config_t::hv_hostname, &ks_vm_config_t::vm_name, &ks_vm_config_t::uuid,
                            &ks_vm_config_t::fldr_name, &ks_vm_config_t::vmx_path, &ks_vm_config_t::datastore_path,
                            &ks_vm_config_t::datastore_uuid, &ks_vm_config_t::datastore_name,
                            &ks_vm_config_t::host_system, &ks_vm_config_t::resource_pool, &ks_vm_config_t::datacenter,
                            &ks_vm_config_t::vm_folder, &ks_vm_config_t::error, &ks_vm_config_t::snapshot_directory})
        if (text_differs(a->*text, b->*text))
            return true;
    return a->is_template != b->is_template || a->controller_export_enabled != b->controller_export_enabled ||
           a->discover_enabled != b->discover_enabled || a->alerts_enabled != b->alerts_enabled ||
           a->quiesce_enabled != b->quiesce_enabled || a->use_cbt != b->use_cbt ||
           a->cbt_reset_pending != b->cbt_reset_pending || a->cbt_reset_time != b->cbt_reset_time ||
           a->cbt_reset_time_prev != b->cbt_reset_time_prev || a->last_discover_time != b->last_discover_time ||
           a->snap_exists != b->snap_exists;
}

}  // namespace mirador
