// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/vm_paths.h"

#include "appliance/lib/registry.h"
#include "appliance/lib/shadow_names.h"
#include "controller/lib/inventory_check.h"
#include "lib/cor_string.h"
#include "lib/tool_paths.h"
#include "vmware/lib/vmdk/datastore_path.h"
#include "vmware/lib/vmdk/vmdk_open.h"

namespace mirador {
namespace {

const std::string& datastore_key(const ks_vm_config_t& vmc) {
    return ks_is_set(vmc.datastore_uuid) ? *vmc.datastore_uuid : ks_text(vmc.datastore_name);
}

}  // namespace

const std::string& vm_group(const ks_vm_config_t& vmc) {
    return ks_is_set(vmc.fldr_name) ? *vmc.fldr_name : ks_text(vmc.hv_hostname);
}

errdesc_t* vm_path_make(const ks_vm_config_t& vmc, const std::string& root, std::string* vm_path) {
    RETURN_IF_ERROR(ks_vm_config_check(vmc));
    RETURN_IF_ERROR(shadow_check_vmx_path(ks_text(vmc.vmx_path), vmc.is_template));
    return shadow_vm_path(root, vm_group(vmc), ks_text(vmc.vm_name), vm_path);
}

errdesc_t* vm_paths_make(const ks_vm_config_t& vmc, const std::string& root, vm_paths_t* paths) {
    RETURN_IF_ERROR(vm_path_make(vmc, root, &paths->vm_path));
    if (get_reg_settings()->export_vm_uuid_enabled)
        RETURN_IF_ERROR(shadow_uuid_path(root, *vmc.uuid, &paths->vm_symlink));
    const std::string& vmx = *vmc.vmx_path;
    const std::string& key = datastore_key(vmc);
    paths->vm_ds_uuid = key;
    paths->vmx_path = vmx;
    paths->vmx_shadow_path = cor_format_path("%s/%s", paths->vm_path.c_str(), std::string(last_component(vmx)).c_str());
    paths->vm_cfg_path = shadow_cfg_path(paths->vmx_shadow_path, vmc.is_template);
    paths->vm_cached_path = cor_format_path("%s/%s/%s", tool_paths().cache_dir.c_str(), key.c_str(), vmx.c_str());
    paths->vm_cfg_cached_path = shadow_cfg_path(paths->vm_cached_path, vmc.is_template);
    return nullptr;
}

void vm_paths_locate(vm_paths_t* paths) {
    const std::string& key = paths->vm_ds_uuid;
    paths->vmx_ds_path =
        cor_format_path("%s/%s/%s", get_datastore_mount_point(key).c_str(), key.c_str(), paths->vmx_path.c_str());
    paths->vm_ds_dir = vmdk_get_dir(paths->vmx_ds_path);
}

}  // namespace mirador
