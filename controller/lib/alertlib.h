// SPDX-License-Identifier: Apache-2.0
// Alerts on the wire: what an operator must see, posted to and cleared at the controller. Nothing is kept here and
// nothing locked; controller/lib/managed_alert.h keeps alerts apart that are known already.
//
// Errors: those of the controller's requests (controller/lib/controller.h).
#pragma once

#include <optional>
#include <string>

#include "controller/lib/kestrel_types.h"
#include "lib/errdesc.h"
#include "lib/json_tools.h"
#include "lib/list.h"

namespace mirador {

// Posts an alert of the kind `alert_id` about `object_id`. Absent texts go as "".
[[nodiscard]] errdesc_t* alert_post(const std::string& alert_id, const std::string& object_id,
                                    const std::string& node_uuid, const ks_string_t& severity,
                                    const ks_string_t& hv_host, const ks_string_t& vhost, const ks_string_t& message,
                                    bool managed);

[[nodiscard]] errdesc_t* alert_clear(const std::string& alert_id, const std::string& object_id,
                                     const std::string& node_uuid);

// The controller's alerts that equal every filter given, as a new list; an empty `node_uuid` means this appliance's
// own, as the registry has it. Error besides: EIO "Cannot parse json string %s: %p" for a reply that is no JSON array.
// After an error *list is null.
[[nodiscard]] errdesc_t* alert_get(const ks_string_t& alert_id, const ks_string_t& object_id,
                                   const ks_string_t& node_uuid, std::unique_ptr<list_t<json_ptr>>* list);

// Posts what went wrong with a file that a client uses: kind "runtime", severity "warning", the client's path as
// object, the descriptor's text, and hypervisor and VM as the file's proxy header names them (absent: unknown). A
// failure to post is logged at level 4; the calling thread's descriptor is afterwards what it was.
void alert_post_runtime(const std::string& client_path, const errdesc_t* e, const std::string& node_uuid,
                        const ks_string_t& hv_name, const ks_string_t& vm_uuid);

}  // namespace mirador
