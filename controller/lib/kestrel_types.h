// SPDX-License-Identifier: Apache-2.0
// Inventory records: hypervisors, VMs, folders, disks and datastores as the controller knows them.
//
// Flat values without locks. Whoever holds a record owns all of it; copies share nothing. A text that the controller
// did not send is absent (no value), which differs from an empty one. Integers that it did not send are -1 in the
// field's type unless said otherwise.
//
// The records come from outside as they are: before a field becomes part of a path, a URL or a header, the record goes
// through its check (controller/lib/inventory_check.h).
//
// Null records are asserted against in every operation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>

#include "lib/errdesc.h"
#include "lib/list.h"
#include "lib/secret.h"

namespace mirador {

using ks_string_t = std::optional<std::string>;

// The text, or "" where it is absent.
const std::string& ks_text(const ks_string_t& text);

// Whether the text is there and not empty.
bool ks_is_set(const ks_string_t& text);

// One hypervisor or management server.
struct ks_hypervisor_config_t {
    ks_string_t hostname = {};  // name or address; identifies it
    ks_string_t login_name = {};
    std::optional<secret_t> password = {};
    std::uint32_t hv_port = 0;       // management
    std::uint32_t hv_data_port = 0;  //
    ks_string_t hv_type = {};        // a name of HYPERVISOR_TYPE_TABLE
};

// One virtual machine.
struct ks_vm_config_t {
    ks_string_t hv_hostname = {};  // the hypervisor that owns it
    ks_string_t vm_name = {};      // display name
    ks_string_t uuid = {};         // identifies it throughout the system
    ks_string_t fldr_name = {};    // export folder
    ks_string_t snap_suffix = {};  // of its snapshots' names
    ks_string_t vmx_path = {};     // of the .vmx or .vmtx file, within the datastore
    ks_string_t snapshot_directory = {};
    ks_string_t datastore_name = {};
    ks_string_t datastore_path = {};
    ks_string_t datastore_uuid = {};
    ks_string_t datacenter = {};
    ks_string_t vm_folder = {};    // in the hypervisor's inventory
    ks_string_t host_system = {};  // the host that runs it
    ks_string_t resource_pool = {};
    std::uint32_t last_discover_time = 0;  // seconds since the epoch
    bool is_template = false;              // vmx_path ends in ".vmtx"
    bool controller_export_enabled = false;
    bool export_enabled = false;
    bool discover_enabled = false;
    bool alerts_enabled = false;
    bool quiesce_enabled = false;
    bool use_cbt = false;
    bool cbt_reset_pending = false;
    std::uint32_t cbt_reset_time = 0;       // seconds since the epoch; 0 when not sent, as the next
    std::uint32_t cbt_reset_time_prev = 0;  //
    // Snapshots of this vendor that the controller has seen on the VM; a user's own do not count. -1: none known.
    std::int32_t snap_exists = 0;
    ks_string_t error = {};  // what the controller holds against the VM
};

// One export folder.
struct ks_vm_folder_t {
    std::uint32_t numVMs = 0;
    ks_string_t fldr_name = {};
    ks_string_t fldr_uuid = {};
};

// One virtual disk. Paths are the hypervisor's, sizes bytes.
struct ks_vdisk_t {
    ks_string_t vhost_uuid = {};               // of the VM that owns it
    ks_string_t name = {};                     // file name; one that contains "-corcbt." is a changed-block companion
    ks_string_t changeid = {};                 // current change id
    ks_string_t changeid_prev = {};            //
    ks_string_t changeid_incr = {};            // of the incremental export
    ks_string_t changeid_base = {};            // of the base export
    std::uint32_t corcbt_size_percentage = 0;  // changed-block overlay in percent of the disk, 1 to 100
    std::uint32_t cbt_reset_time_vdisk = 0;    // seconds since the epoch; 0 when not sent
    std::uint64_t flat_file_size = 0;          // 0 when not sent
    ks_string_t base_ascii_path = {};          // descriptor and extent of the base disk
    ks_string_t base_extent_path = {};
    std::uint64_t base_ascii_size = 0;
    std::uint64_t base_extent_size = 0;
    ks_string_t head_ascii_path = {};  // descriptor and extent of the newest disk of the chain
    ks_string_t head_extent_path = {};
    std::uint64_t head_ascii_size = 0;
    std::uint64_t head_extent_size = 0;
    bool independent = false;
    bool thinprovisioned = false;
};

using datastore_paths_t = list_t<std::string>;

// One datastore.
struct ks_ds_config_t {
    ks_string_t hv = {};
    ks_string_t dc = {};  // datacenter
    ks_string_t hostsystem = {};
    ks_string_t name = {};
    ks_string_t uuid = {};
    ks_string_t url = {};
    ks_string_t type = {};
    std::int32_t timestamp = 0;  // of the report, seconds since the epoch
    std::uint32_t accessible = 0;
    std::uint64_t capacity = 0;  // bytes
    std::uint64_t free_space = 0;
    std::unique_ptr<datastore_paths_t> paths = {};  // local; null when none were sent
    bool is_local_dc = false;                       // in the appliance's own datacenter
};

// One NFS export to mount.
struct ks_nfs_datastore_config_t {
    ks_string_t hostname = {};
    ks_string_t path = {};
    ks_string_t options = {};
};

enum ks_hypervisor_type_t : std::uint32_t {
    HYPERVISOR_TYPE_UNKNOWN = 0,
    HYPERVISOR_TYPE_VMWARE_ESX = 1,
    HYPERVISOR_TYPE_VMWARE_ESXi = 2,
    HYPERVISOR_TYPE_VMWARE_VCENTER = 3,
    HYPERVISOR_TYPE_AUTO = 4,
};

struct ks_hypervisor_type_name_t {
    ks_hypervisor_type_t type;
    const char* name;
};

// Ends with a null name.
extern const ks_hypervisor_type_name_t HYPERVISOR_TYPE_TABLE[];

// The type of that name, letter case as in the table; HYPERVISOR_TYPE_UNKNOWN when there is none.
ks_hypervisor_type_t ks_hypervisor_get_type(const std::string& name);

// Its name, "(unknown)" for a value outside the table.
const char* ks_hypervisor_get_type_str(ks_hypervisor_type_t type);

// Drops a text. A null pointer is asserted against.
void my_strptr_free(ks_string_t* text);

// Clear the record.
void ks_hypervisor_config_free(ks_hypervisor_config_t* hvc);
void ks_vm_config_free(ks_vm_config_t* vmc);
void ks_vm_folder_free(ks_vm_folder_t* fldr);
void ks_vdisk_free(ks_vdisk_t* vd);
void ks_ds_config_free(ks_ds_config_t* dsc);
void ks_nfs_datastore_config_free(ks_nfs_datastore_config_t* nfs);

// Copy a record whole. Asserted: the destination's texts are absent.
void ks_hypervisor_config_copy(ks_hypervisor_config_t* dst, const ks_hypervisor_config_t* src);
void ks_vm_config_copy(ks_vm_config_t* dst, const ks_vm_config_t* src);

// Copies a record whole, over whatever the destination held.
void ks_vdisk_copy(ks_vdisk_t* dst, const ks_vdisk_t* src);

// Makes *dst a copy with a list of its own; a record without list is copied with an empty one. Always succeeds.
[[nodiscard]] errdesc_t* ks_ds_config_copy(const ks_ds_config_t* src, std::unique_ptr<ks_ds_config_t>* dst);

// For list_iter over a datastore's paths: appends a copy of the path and goes on.
bool datastore_path_copy(datastore_paths_t* paths, const std::string& path);

// Whether two records of a VM differ in what concerns its export. A text that only one of them has is no difference,
// and neither are `snap_suffix` and `export_enabled`.
bool ks_vm_config_diff(const ks_vm_config_t* a, const ks_vm_config_t* b);

// Print a record, one field a line. The hypervisor's password is printed as it is: for debugging only.
void ks_hypervisor_config_dump(const ks_hypervisor_config_t* hvc, std::FILE* stream = stderr);
void ks_vm_config_dump(const ks_vm_config_t* vmc, std::FILE* stream = stderr);
void ks_vm_folder_dump(const ks_vm_folder_t* fldr, std::FILE* stream = stderr);
void ks_vdisk_dump(const ks_vdisk_t* vd, std::FILE* stream = stderr);

}  // namespace mirador
