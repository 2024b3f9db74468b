// SPDX-License-Identifier: Apache-2.0
// Where one exported VM lies: in the shadow tree, in the cache and on its datastore. Functions over the VM's record
// alone, but for vm_paths_locate.
#pragma once

#include <string>

#include "controller/lib/kestrel_types.h"
#include "lib/errdesc.h"

namespace mirador {

struct vm_paths_t {
    std::string vm_path;             // shadow directory
    std::string vmx_path;            // of the VMX file in its datastore
    std::string vm_ds_dir;           // directory of the VMX file on the mounted datastore
    std::string vm_ds_uuid;          // datastore key: its uuid, else its name
    std::string vmx_ds_path;         // VMX file on the mounted datastore
    std::string vmx_shadow_path;     // its entry
    std::string vm_symlink;          // alias by uuid; empty without export_vm_uuid_enabled
    std::string vm_cached_path;      // converted VMX file in the cache
    std::string vm_cfg_path;         // entry of the exported configuration file
    std::string vm_cfg_cached_path;  // that file, in the cache
};

// The name of the directory that holds the VM's own: its folder, else its hypervisor.
const std::string& vm_group(const ks_vm_config_t& vmc);

// The shadow directory alone of a VM whose tree stands at `root`. Errors: EINVAL and ENAMETOOLONG for a record whose
// texts cannot be made into paths that stay where they belong (controller/lib/inventory_check.h).
[[nodiscard]] errdesc_t* vm_path_make(const ks_vm_config_t& vmc, const std::string& root, std::string* vm_path);

// Makes all paths but those on the datastore, `vm_ds_dir` and `vmx_ds_path`. Errors as above.
[[nodiscard]] errdesc_t* vm_paths_make(const ks_vm_config_t& vmc, const std::string& root, vm_paths_t* paths);

// Fills in the paths on the datastore where it is mounted now. Looks at the datastore, which may take as long as the
// datastore does: not for threads on which other VMs depend.
void vm_paths_locate(vm_paths_t* paths);

}  // namespace mirador
