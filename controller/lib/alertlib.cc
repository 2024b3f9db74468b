// SPDX-License-Identifier: Apache-2.0
#include "controller/lib/alertlib.h"

#include <cerrno>
#include <utility>

#include "controller/lib/controller.h"
#include "controller/lib/controller_raw.h"
#include "controller/lib/controller_url.h"
#include "controller/lib/json_fields.h"
#include "lib/clock.h"
#include "lib/cor_assert.h"

namespace mirador {
namespace {

constexpr const char* alert_object = "alert";
constexpr const char* own_uuid_key = "controller.uuid";
constexpr std::size_t uuid_size = 64;  // terminator included

bool matches(json_object* alert, const char* member, const ks_string_t& filter) {
    return !filter || json_text_member(alert, member) == filter;
}

// The alerts of a reply, each for as long as the reply lives and beyond.
template <typename keep_t>
errdesc_t* decode_alerts(const std::string& body, const keep_t& keep, list_t<json_ptr>* list) {
    const json_ptr reply = json_parse_text(body);
    if (json_object_is_type(reply.get(), json_type_array) == 0)
        return errdesc_set_fmt(EIO, "Cannot parse json string %s: %p", body.c_str(), static_cast<void*>(reply.get()));
    for (std::size_t i = 0; i < json_object_array_length(reply.get()); i++) {
        json_object* const alert = json_object_array_get_idx(reply.get(), i);
        if (alert != nullptr && keep(alert))
            list_add(*list, json_ptr(json_object_get(alert)));
    }
    return nullptr;
}

}  // namespace

errdesc_t* alert_post(const std::string& alert_id, const std::string& object_id, const std::string& node_uuid,
                      const ks_string_t& severity, const ks_string_t& hv_host, const ks_string_t& vhost,
                      const ks_string_t& message, bool managed) {
    const json_ptr alert(json_object_new_object());
    json_add_string_field(alert.get(), "action", "alert_post");
    json_add_string_field(alert.get(), "alert_id", alert_id);
    json_add_string_field(alert.get(), "object_id", object_id);
    json_add_int_field(alert.get(), "alert_time", static_cast<std::int32_t>(clock_now()));
    json_add_string_field(alert.get(), "severity", severity);
    json_add_string_field(alert.get(), "hv_host", hv_host);
    json_add_string_field(alert.get(), "vhost", vhost);
    json_add_string_field(alert.get(), "message", message);
    json_add_string_field(alert.get(), "node_uuid", node_uuid);
    json_add_int_field(alert.get(), "managed_alert", managed ? 1 : 0);
    return controller_post_json(alert_object, alert.get());
}

errdesc_t* alert_clear(const std::string& alert_id, const std::string& object_id, const std::string& node_uuid) {
    const json_ptr alert(json_object_new_object());
    json_add_string_field(alert.get(), "action", "alert_clear");
    json_add_string_field(alert.get(), "alert_id", alert_id);
    json_add_string_field(alert.get(), "object_id", object_id);
    json_add_string_field(alert.get(), "node_uuid", node_uuid);
    return controller_post_json(alert_object, alert.get());
}

errdesc_t* alert_get(const ks_string_t& alert_id, const ks_string_t& object_id, const ks_string_t& node_uuid,
                     std::unique_ptr<list_t<json_ptr>>* list) {
    cor_assert(list != nullptr);
    list->reset();
    ks_string_t node = node_uuid;
    if (node && node->empty())
        RETURN_IF_ERROR(controller_get_registry_string(own_uuid_key, &*node, uuid_size));
    auto alerts = list_new<json_ptr>();
    const auto keep = [&](json_object* alert) {
        return matches(alert, "alert_id", alert_id) && matches(alert, "object_id", object_id) &&
               matches(alert, "node_uuid", node);
    };
    RETURN_IF_ERROR(controller_raw_do_get(controller_get_url(), alert_object, [&](const std::string& body) {
        return decode_alerts(body, keep, alerts.get());
    }));
    *list = std::move(alerts);
    return nullptr;
}

void alert_post_runtime(const std::string& client_path, const errdesc_t* e, const std::string& node_uuid,
                        const ks_string_t& hv_name, const ks_string_t& vm_uuid) {
    cor_assert(e != nullptr);
    const std::string message = e->string;
    const errdesc_keeper_t keeper;
    if (errdesc_t* failure = alert_post("runtime", client_path, node_uuid, "warning", ks_text(hv_name),
                                        ks_text(vm_uuid), message, false))
        _errdesc_log(failure, ERRDESC_WARNING);
}

}  // namespace mirador
