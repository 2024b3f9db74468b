// SPDX-License-Identifier: Apache-2.0
#include "controller/lib/managed_alert.h"

#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "controller/lib/alertlib.h"
#include "lib/clock.h"
#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/hash_table.h"
#include "lib/thread_annotations.h"

namespace mirador {
namespace {

using keys_t = std::unordered_set<std::string>;

class alert_table_t {
  public:
    mutex_t mutex;

    // The record under `key`; null when there is none. It stays where it is until it is dropped.
    managed_alert_t* find(const std::string& key) REQUIRES(mutex) {
        hash_node_t<managed_alert_t>* const node = alerts_.find(key);
        return node == nullptr ? nullptr : &node->handle;
    }

    managed_alert_t* add(const std::string& key, managed_alert_t alert) REQUIRES(mutex) {
        of_vm_[ks_text(alert.vm_uuid)].insert(key);
        table_new_handle(alerts_, key, std::move(alert));
        return find(key);
    }

    void set_vm(const std::string& key, managed_alert_t* alert, const ks_string_t& vm_uuid) REQUIRES(mutex) {
        forget_vm(key, *alert);
        alert->vm_uuid = vm_uuid;
        of_vm_[ks_text(vm_uuid)].insert(key);
    }

    // Takes the record out of the table.
    managed_alert_t drop(const std::string& key) REQUIRES(mutex) {
        std::optional<managed_alert_t> alert = table_release_handle(alerts_, key);
        cor_assert(alert.has_value());
        forget_vm(key, *alert);
        return std::move(*alert);
    }

    // The keys of a VM's records: clearing one VM must not cost a walk over the alerts of all.
    std::vector<std::string> keys_of_vm(const std::string& vm_uuid) const REQUIRES(mutex) {
        alerts_.check();
        const auto found = of_vm_.find(vm_uuid);
        if (found == of_vm_.end())
            return {};
        return {found->second.begin(), found->second.end()};
    }

    template <typename match_t>
    std::vector<std::string> keys_of(const match_t& match) const REQUIRES(mutex) {
        alerts_.check();
        std::vector<std::string> keys;
        for (const auto& [key, node] : alerts_.hash)
            if (match(node.handle))
                keys.push_back(key);
        return keys;
    }

    void end() REQUIRES(mutex) {
        if (std::exchange(ended_, true))
            return;
        table_free(&alerts_);
        of_vm_.clear();
    }

  private:
    void forget_vm(const std::string& key, const managed_alert_t& alert) REQUIRES(mutex) {
        const auto found = of_vm_.find(ks_text(alert.vm_uuid));
        cor_assert(found != of_vm_.end());
        found->second.erase(key);
        if (found->second.empty())
            of_vm_.erase(found);
    }

    hash_table_t<managed_alert_t> alerts_ GUARDED_BY(mutex);           // by kind and object
    std::unordered_map<std::string, keys_t> of_vm_ GUARDED_BY(mutex);  // the same by VM; "" where it has no uuid
    bool ended_ GUARDED_BY(mutex) = false;
};

alert_table_t& alert_table() {
    static alert_table_t table;
    return table;
}

bool is_unchanged(const managed_alert_t& alert, const ks_string_t& severity, const ks_string_t& message,
                  const ks_vm_config_t& vm) {
    return alert.last_message == message && (alert.severity == severity || !alert.severity || !severity) &&
           alert.vm_uuid == vm.uuid && alert.vm_name == vm.vm_name && alert.hv_name == vm.hv_hostname;
}

errdesc_t* send(managed_alert_t* alert, const std::string& node_uuid, int defer_seconds, std::time_t now) {
    alert->deferred = false;
    if (!alert->last_message)
        return alert_clear(alert->alert_id, alert->object_id, node_uuid);
    if (defer_seconds > 0 && alert->create_time + defer_seconds >= now) {
        alert->deferred = true;
        return nullptr;
    }
    return alert_post(alert->alert_id, alert->object_id, node_uuid, alert->severity, alert->hv_name, alert->vm_name,
                      alert->last_message, true);
}

// Clears at the controller what is raised, and drops the records. One that fails does not keep the others.
errdesc_t* clear_keys(alert_table_t& table, const std::vector<std::string>& keys, const std::string& node_uuid)
    REQUIRES(table.mutex) {
    errdesc_t* failure = nullptr;
    for (const std::string& key : keys) {
        const managed_alert_t alert = table.drop(key);
        if (!alert.last_message)
            continue;
        if (errdesc_t* e = alert_clear(alert.alert_id, alert.object_id, node_uuid))
            failure = e;
    }
    return failure;
}

}  // namespace

errdesc_t* managed_alert_post(const std::string& alert_id, const std::string& object_id, const std::string& node_uuid,
                              const ks_string_t& severity, const ks_string_t& message, const ks_vm_config_t& vm,
                              int defer_seconds) {
    const std::time_t now = clock_now();
    const std::string key = cor_format("%s:%s", alert_id.c_str(), object_id.c_str());
    alert_table_t& table = alert_table();
    const mutex_lock_t lock(table.mutex);
    managed_alert_t* alert = table.find(key);
    bool to_send = true;
    if (alert == nullptr) {
        alert = table.add(key, {.hv_name = vm.hv_hostname,
                                .vm_name = vm.vm_name,
                                .vm_uuid = vm.uuid,
                                .alert_id = alert_id,
                                .object_id = object_id,
                                .severity = severity,
                                .last_message = message,
                                .create_time = now});
    } else if (is_unchanged(*alert, severity, message, vm)) {
        to_send = alert->deferred;
    } else {
        alert->last_message = message;
        alert->severity = severity;
        alert->vm_name = vm.vm_name;
        alert->hv_name = vm.hv_hostname;
        table.set_vm(key, alert, vm.uuid);
    }
    alert->update_time = now;
    return to_send ? send(alert, node_uuid, defer_seconds, now) : nullptr;
}

errdesc_t* managed_alert_clear(const std::string& alert_id, const std::string& object_id, const std::string& node_uuid,
                               const ks_vm_config_t& vm) {
    return managed_alert_post(alert_id, object_id, node_uuid, std::nullopt, std::nullopt, vm, 0);
}

errdesc_t* managed_alert_clear_vm(const std::string& vm_uuid, const std::string& node_uuid) {
    alert_table_t& table = alert_table();
    const mutex_lock_t lock(table.mutex);
    return clear_keys(table, table.keys_of_vm(vm_uuid), node_uuid);
}

errdesc_t* managed_alert_clear_hv(const std::string& hv_name, const std::string& node_uuid) {
    alert_table_t& table = alert_table();
    const mutex_lock_t lock(table.mutex);
    const auto of_hv = [&](const managed_alert_t& alert) { return alert.hv_name == hv_name; };
    return clear_keys(table, table.keys_of(of_hv), node_uuid);
}

errdesc_t* managed_alert_clear_all(const std::string& node_uuid) {
    alert_table_t& table = alert_table();
    const mutex_lock_t lock(table.mutex);
    return clear_keys(table, table.keys_of([](const managed_alert_t&) { return true; }), node_uuid);
}

errdesc_t* managed_alert_clear_old(const std::string& node_uuid, const ks_string_t& alert_id, std::time_t before) {
    alert_table_t& table = alert_table();
    const mutex_lock_t lock(table.mutex);
    const auto is_old = [&](const managed_alert_t& alert) {
        return alert.update_time < before && (!alert_id || alert.alert_id == *alert_id);
    };
    return clear_keys(table, table.keys_of(is_old), node_uuid);
}

errdesc_t* managed_alert_clear_if(const std::string& node_uuid,
                                  const std::function<bool(const managed_alert_t&)>& is_over) {
    alert_table_t& table = alert_table();
    const mutex_lock_t lock(table.mutex);
    return clear_keys(table, table.keys_of(is_over), node_uuid);
}

void managed_alert_shutdown() {
    alert_table_t& table = alert_table();
    const mutex_lock_t lock(table.mutex);
    table.end();
}

}  // namespace mirador
