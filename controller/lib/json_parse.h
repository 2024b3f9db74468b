// SPDX-License-Identifier: Apache-2.0
// The controller's JSON replies, decoded into inventory records. Pure functions over their arguments.
//
// A reply is one object, which yields one record, or an array, which yields one for each element in order; records are
// appended to the caller's list. Texts end at a zero byte; values of another type than asked for count as their JSON
// text, or as the number that json-c makes of them. An element null cannot be decoded: it is left out, and a reply that
// has any is logged once at level 4. Beyond that nothing is judged here; see controller/lib/inventory_check.h.
//
// Errors, with the list as far as it got: ERR_JSON_PARSE_ERROR "couldn't parse json_string" for what is not JSON (or
// nested deeper than 32 levels), "unknown json_type" for what is neither object nor array.
// Asserted: pointers are not null.
#pragma once

#include <cstddef>
#include <string>

#include "controller/lib/kestrel_types.h"
#include "lib/errdesc.h"
#include "lib/list.h"

namespace mirador {

// Elements that are no object, or an empty one, are left out silently. *n_added counts the records appended.
[[nodiscard]] errdesc_t* json_parse_hv_config(const std::string& text, list_t<ks_hypervisor_config_t>* list,
                                              int* n_added);
[[nodiscard]] errdesc_t* json_parse_vm_config(const std::string& text, list_t<ks_vm_config_t>* list, int* n_added);
[[nodiscard]] errdesc_t* json_parse_nfs_datastores_config(const std::string& text,
                                                          list_t<ks_nfs_datastore_config_t>* list, int* n_added);

// As above, uncounted. Error besides: ERR_INVALID_ARG for an empty text or a null list. The two texts begin with
// capital letters here.
[[nodiscard]] errdesc_t* json_parse_folders(const std::string& text, list_t<ks_vm_folder_t>* list);

// Every element yields a record, whatever it is.
[[nodiscard]] errdesc_t* json_parse_datastores_config(const std::string& text, list_t<ks_ds_config_t>* list);

// Disks without a name are left out, and changed-block companions unless `include_corcbt` is set.
[[nodiscard]] errdesc_t* json_parse_vdisk(const std::string& text, bool include_corcbt, list_t<ks_vdisk_t>* list);

// The value that the reply gives for a registry key, cut to `size` - 1 characters. Errors: ERR_JSON_PARSE_ERROR "could
// not parse json_string"; ERR_JSON_MISSING_FIELD "Missing %s in json string" without "error_code", without or with an
// empty "result"; ERR_REGISTRY_KEY_NOT_FOUND "Registry %s is not found" for an "error_code" other than 0.
[[nodiscard]] errdesc_t* json_parse_registry_value(const std::string& text, const std::string& key, std::string* value,
                                                   std::size_t size);

// The generation id of a synchronisation reply; empty when there is none. Errors: ERR_JSON_PARSE_ERROR "couldn't parse
// json_string: %s" with the text.
[[nodiscard]] errdesc_t* json_parse_gen_id(const std::string& text, std::string* gen_id);

}  // namespace mirador
