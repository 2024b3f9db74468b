// SPDX-License-Identifier: Apache-2.0
// The controller: the web service of this machine that holds the inventory, the settings registry and the generations
// of file-system synchronisation.
//
// Any thread may call any operation and blocks for as long as the controller takes. Each request opens and closes a
// connection of its own; nothing is shared but the base URL (controller/lib/controller_url.h).
//
// Errors of every request: the HTTP client's (EAGAIN for status 404, 500 and 503; 127 for 401; EIO for others;
// libcurl's own for no connection, a cut reply, an interruption); ENAMETOOLONG for a URL of 1024 characters and more;
// those of the reply's decoder (controller/lib/json_parse.h). A reply without a body is a success that brings nothing:
// an empty list, an empty text. After an error a list is null. Asserted: result pointers are not null.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>

#include "controller/lib/kestrel_types.h"
#include "lib/errdesc.h"
#include "lib/list.h"

namespace mirador {

template <typename record_t>
using record_list_ptr = std::unique_ptr<list_t<record_t>>;

// Inventory. Records are as the controller sent them: check before use (controller/lib/inventory_check.h).

[[nodiscard]] errdesc_t* controller_get_hypervisors(record_list_ptr<ks_hypervisor_config_t>* list);

// The first hypervisor of that host name. Error: ENOENT with the name.
[[nodiscard]] errdesc_t* controller_get_hypervisor(ks_hypervisor_config_t* hvc, const std::string& hvname);

// The VM of that uuid; null when the controller knows none.
[[nodiscard]] errdesc_t* controller_get_vm(std::unique_ptr<ks_vm_config_t>* vmc, const std::string& vm_uuid);

// The VMs of a hypervisor.
[[nodiscard]] errdesc_t* controller_get_vms(const ks_hypervisor_config_t& hvc, record_list_ptr<ks_vm_config_t>* list);

[[nodiscard]] errdesc_t* controller_get_user_defined_folders(record_list_ptr<ks_vm_folder_t>* list);

// The disks of a VM, or of all, without changed-block companions.
[[nodiscard]] errdesc_t* controller_get_vdisks(const std::optional<std::string>& vm_uuid,
                                               record_list_ptr<ks_vdisk_t>* list);

// With changed-block companions: the disks of that name of a VM; all disks of it without a name; without a uuid, all.
[[nodiscard]] errdesc_t* controller_get_corcbt_vdisks(const std::optional<std::string>& vm_uuid,
                                                      const std::optional<std::string>& name,
                                                      record_list_ptr<ks_vdisk_t>* list);

[[nodiscard]] errdesc_t* controller_get_nfs_datastores(record_list_ptr<ks_nfs_datastore_config_t>* list);
[[nodiscard]] errdesc_t* controller_get_datastores(record_list_ptr<ks_ds_config_t>* list);

// The first datastore whose uuid or name is the key, in the datacenter when one is given. Error: ENOENT "Cannot find
// datastore %s in datacenter %s" or "Cannot find datastore %s".
[[nodiscard]] errdesc_t* controller_get_datastore(std::unique_ptr<ks_ds_config_t>* dsc, const std::string& name_or_uuid,
                                                  const std::optional<std::string>& datacenter);

// Settings.

// The registry's value for a key, cut to `size` - 1 characters.
[[nodiscard]] errdesc_t* controller_get_registry_string(const std::string& key, std::string* value, std::size_t size);

// The uuid of the master node, cut likewise.
[[nodiscard]] errdesc_t* controller_get_master_uuid(std::string* uuid, std::size_t size);

// Synchronisation: a generation id is a token for one version of the controller's inventory. An empty one as result
// means that the reply held none. An id that could not be sent back as it is (128 characters or more, blanks, control
// characters, any of "#%&+<>) is an error: EINVAL "Generation id refused: %s".

inline constexpr std::size_t controller_gen_id_size = 128;  // terminator included

// The generation of a target ("dsfs": the inventory, "vmfs": what this daemon has taken over).
[[nodiscard]] errdesc_t* controller_fs_sync_query(const std::string& target, std::string* gen_id);
[[nodiscard]] errdesc_t* controller_fs_sync_set(const std::string& target, const std::string& gen_id);

// Waits until the target's generation is another than `current_gen`, for `timeout` seconds at most where it is not 0;
// the controller decides, and may answer with the same id, or none, at once: a caller that waits in a loop sees to its
// pace. The wait ends with 42 while *interrupt is not 0; null: no interruption.
[[nodiscard]] errdesc_t* controller_fs_sync_wait(const std::string& target, const std::string& current_gen, int timeout,
                                                 const std::atomic<int>* interrupt, std::string* new_gen);

}  // namespace mirador
