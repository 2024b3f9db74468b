// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/webservices/ws_datastore.h"

#include <array>

#include "lib/cor_assert.h"
#include "lib/log.h"
#include "vmware/lib/webservices/ws_marshal.h"

namespace mirador {
namespace {

constexpr const char* paths_key = "paths";

json_object* encoded_paths(const std::vector<std::string>& paths) {
    json_object* const array = json_object_new_array();
    for (const std::string& path : paths)
        json_object_array_add(array, json_object_new_string_len(path.data(), static_cast<int>(path.size())));
    return array;
}

void decode_paths(json_object* obj, std::vector<std::string>* paths) {
    paths->clear();
    json_object* const array = json_object_object_get(obj, paths_key);
    if (json_object_is_type(array, json_type_array) == 0)
        return;
    for (std::size_t i = 0; i < json_object_array_length(array); i++) {
        json_object* const path = json_object_array_get_idx(array, i);
        if (json_object_is_type(path, json_type_string) != 0)
            paths->emplace_back(json_object_get_string(path));
    }
}

void marshal_paths(jdr_op_t op, json_object* obj, std::vector<std::string>* paths) {
    if (op == JDR_ENCODE) {
        json_object_object_add(obj, paths_key, encoded_paths(*paths));
    } else if (op == JDR_DECODE) {
        decode_paths(obj, paths);
    } else {
        paths->clear();
        json_object_object_del(obj, paths_key);
    }
}

// In the order of the wire.
bool marshal_fields(jdr_op_t op, json_object* obj, datastore_info_t* info) {
    const bool whole = jdr_text(op, &obj, "hv", &info->hv) >= 0 && jdr_text(op, &obj, "name", &info->name) >= 0 &&
                       jdr_text(op, &obj, "url", &info->url) >= 0 && jdr_text(op, &obj, "type", &info->type) >= 0 &&
                       jdr_text(op, &obj, "dc", &info->dc) >= 0 &&
                       jdr_time_t(op, &obj, "timestamp", &info->timestamp) >= 0 &&
                       jdr_uint32(op, &obj, "accessible", &info->accessible) >= 0 &&
                       jdr_uint64(op, &obj, "capacity", &info->capacity) >= 0 &&
                       jdr_uint64(op, &obj, "freeSpace", &info->free_space) >= 0;
    if (whole)
        marshal_paths(op, obj, &info->paths);
    return whole;
}

}  // namespace

ssize_t jdr_datastore_info(jdr_op_t op, json_object** obj, const char* key, datastore_info_t* info) {
    return jdr_record(op, obj, key, info, marshal_fields);
}

void datastore_info_copy(const datastore_info_t* src, datastore_info_t* dst) {
    *dst = *src;
}

void datastore_info_free(datastore_info_t* info) {
    *info = {};
}

void datastore_info_dump(const std::string& tag, const datastore_info_t& info) {
    tm local{};
    std::array<char, 64> time{};
    if (localtime_r(&info.timestamp, &local) != nullptr)
        std::strftime(time.data(), time.size(), "%Y-%m-%d %H:%M:%S", &local);
    ts_printf(
        "%s: hv <%s> dc <%s> name <%s> url <%s> type <%s> accessible <%d> capacity <%jd> free_space <%jd> "
        "timestamp <%s>\n",
        tag.c_str(), info.hv.c_str(), info.dc.c_str(), info.name.c_str(), info.url.c_str(), info.type.c_str(),
        static_cast<int>(info.accessible), static_cast<std::intmax_t>(info.capacity),
        static_cast<std::intmax_t>(info.free_space), time.data());
}

errdesc_t* ws_df(const ks_hypervisor_config_t& hvc, std::vector<datastore_info_t>* list) {
    return ws_call_for_list(hvc, {"df"}, jdr_datastore_info, list);
}

}  // namespace mirador
