// SPDX-License-Identifier: Apache-2.0
// Managed alerts: conditions that last. One record for each alert raised or cleared, so that an alert is sent only when
// it is new or has changed, may be held back for a while, and goes with its VM or hypervisor.
//
// One process-wide table under one mutex, made on first use. Any thread may call; the mutex is held for the whole
// operation, the requests to the controller included, so that alerts arrive in the order in which they were raised.
// Beyond the controller's URL nothing is locked under it.
//
// A record keeps its state when sending fails: an alert that did not arrive is sent again only when it changes or was
// held back. Errors are those of the last request that failed.
#pragma once

#include <ctime>
#include <functional>
#include <string>

#include "controller/lib/kestrel_types.h"
#include "lib/errdesc.h"

namespace mirador {

// One known alert.
struct managed_alert_t {
    ks_string_t hv_name = {};
    ks_string_t vm_name = {};
    ks_string_t vm_uuid = {};
    std::string alert_id;   // the kind
    std::string object_id;  // what it is about
    ks_string_t severity = {};
    ks_string_t last_message = {};  // absent: cleared
    bool deferred = false;          // raised here, not sent yet
    std::time_t create_time = 0;
    std::time_t update_time = 0;  // when it was last raised or cleared
};

// Raises an alert about `vm`, or updates it; without a message, clears it, also one that was never raised. A new or
// changed alert is held back while its record is not older than `defer_seconds`: the first call after that sends it.
// `node_uuid` is this appliance's.
[[nodiscard]] errdesc_t* managed_alert_post(const std::string& alert_id, const std::string& object_id,
                                            const std::string& node_uuid, const ks_string_t& severity,
                                            const ks_string_t& message, const ks_vm_config_t& vm, int defer_seconds);

[[nodiscard]] errdesc_t* managed_alert_clear(const std::string& alert_id, const std::string& object_id,
                                             const std::string& node_uuid, const ks_vm_config_t& vm);

// Clear the alerts of a VM, of a hypervisor, all, and forget them. Those that are cleared already are only forgotten.
[[nodiscard]] errdesc_t* managed_alert_clear_vm(const std::string& vm_uuid, const std::string& node_uuid);
[[nodiscard]] errdesc_t* managed_alert_clear_hv(const std::string& hv_name, const std::string& node_uuid);
[[nodiscard]] errdesc_t* managed_alert_clear_all(const std::string& node_uuid);

// Likewise the alerts, of that kind where one is given, that were neither raised nor cleared since `before`.
[[nodiscard]] errdesc_t* managed_alert_clear_old(const std::string& node_uuid, const ks_string_t& alert_id,
                                                 std::time_t before);

// Likewise the alerts that `is_over` picks. It is called under the table's mutex.
[[nodiscard]] errdesc_t* managed_alert_clear_if(const std::string& node_uuid,
                                                const std::function<bool(const managed_alert_t&)>& is_over);

// Forgets all alerts without clearing them. Once; no operation may come after it (asserted).
void managed_alert_shutdown();

}  // namespace mirador
