// SPDX-License-Identifier: Apache-2.0
// Inventory records from and to JSON.
#pragma once

#include <json-c/json_object.h>

#include <optional>
#include <string>

#include "controller/lib/kestrel_types.h"
#include "lib/json_tools.h"

namespace mirador {

// The record of one element of a reply: members by the controller's names, each with its default when missing (-1 for
// integers, absent for texts, unless the record says otherwise). A value that is no object has no members.
// Asserted: the element is not null.
ks_hypervisor_config_t json_to_hv_config(json_object* jo_elem);
ks_vm_config_t json_to_vm_config(json_object* jo_elem);
ks_vm_folder_t json_to_folder(json_object* jo_elem);
ks_vdisk_t json_to_vdisk(json_object* jo_elem);
ks_ds_config_t json_to_ds_config(json_object* jo_elem);
ks_nfs_datastore_config_t json_to_nfs_datastore_config(json_object* jo_elem);

// A disk as the controller takes it: its names, change ids, percentage, reset time and size, without the base's and the
// head's files.
json_ptr ks_vdisk_to_json_object(const ks_vdisk_t* vd);

// For list_iter over a datastore's paths: appends the path to a JSON array, nothing when either is missing, and goes
// on.
bool encode_datastore_path(json_object* array, const ks_string_t& path);

}  // namespace mirador
