// SPDX-License-Identifier: Apache-2.0
// The agent's view of a hypervisor's datastores.
#pragma once

#include <json-c/json_object.h>
#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "controller/lib/kestrel_types.h"
#include "lib/errdesc.h"
#include "lib/jdr.h"

namespace mirador {

// One datastore as the agent reports it. Copies are copies of everything and free themselves.
struct datastore_info_t {
    std::string hv;
    std::string name;
    std::string url;
    std::string type;
    std::string dc;                // datacenter
    std::time_t timestamp = 0;     // of the report
    std::uint32_t accessible = 0;  // not 0: it is
    std::uint64_t capacity = 0;    // bytes, as the next
    std::uint64_t free_space = 0;
    std::vector<std::string> paths;  // of its files
};

// The marshaller of a datastore (lib/jdr.h). Decoding asks for every member but "paths"; elements of those that are no
// strings are left out.
ssize_t jdr_datastore_info(jdr_op_t op, json_object** obj, const char* key, datastore_info_t* info);

// Makes *dst a copy, list of paths included; drops a datastore's texts and list and clears it.
void datastore_info_copy(const datastore_info_t* src, datastore_info_t* dst);
void datastore_info_free(datastore_info_t* info);

// Logs a datastore on one line that begins with the tag; its time is local.
void datastore_info_dump(const std::string& tag, const datastore_info_t& info);

// Appends the hypervisor's datastores to *list; null: the reply is only checked. Errors: the session's and the agent's
// (vmware/lib/webservices/ws_session.h); ENOENT for a reply without an array, or with an element that is no datastore.
// The list is empty then.
[[nodiscard]] errdesc_t* ws_df(const ks_hypervisor_config_t& hvc, std::vector<datastore_info_t>* list);

}  // namespace mirador
