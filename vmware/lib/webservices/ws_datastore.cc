// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/webservices/ws_datastore.h"

#include <cerrno>
#include <utility>

#include "lib/json_tools.h"
#include "vmware/lib/webservices/ws_session.h"

namespace mirador {
namespace {

bool decode_text(json_object* obj, const char* key, std::string* text) {
    const char* value = nullptr;
    if (jdr_string(JDR_DECODE, &obj, key, &value) < 0)
        return false;
    *text = value;
    return true;
}

void decode_paths(json_object* obj, std::vector<std::string>* paths) {
    json_object* const array = json_object_object_get(obj, "paths");
    if (json_object_is_type(array, json_type_array) == 0)
        return;
    for (std::size_t i = 0; i < json_object_array_length(array); i++) {
        json_object* const path = json_object_array_get_idx(array, i);
        if (json_object_is_type(path, json_type_string) != 0)
            paths->emplace_back(json_object_get_string(path));
    }
}

errdesc_t* decode_list(json_object* array, std::vector<datastore_info_t>* list) {
    if (json_object_is_type(array, json_type_array) == 0)
        return errdesc_set_str(ENOENT, "df: no datastores in the agent's reply");
    for (std::size_t i = 0; i < json_object_array_length(array); i++)
        if (!datastore_info_decode(json_object_array_get_idx(array, i), &list->emplace_back()))
            return errdesc_set_str(ENOENT, "df: a datastore in the agent's reply is none");
    return nullptr;
}

}  // namespace

bool datastore_info_decode(json_object* obj, datastore_info_t* info) {
    if (json_object_is_type(obj, json_type_object) == 0)
        return false;
    const bool complete = decode_text(obj, "hv", &info->hv) && decode_text(obj, "name", &info->name) &&
                          decode_text(obj, "url", &info->url) && decode_text(obj, "type", &info->type) &&
                          decode_text(obj, "dc", &info->dc) &&
                          jdr_time_t(JDR_DECODE, &obj, "timestamp", &info->timestamp) >= 0 &&
                          jdr_uint32(JDR_DECODE, &obj, "accessible", &info->accessible) >= 0 &&
                          jdr_uint64(JDR_DECODE, &obj, "capacity", &info->capacity) >= 0 &&
                          jdr_uint64(JDR_DECODE, &obj, "freeSpace", &info->free_space) >= 0;
    if (complete)
        decode_paths(obj, &info->paths);
    return complete;
}

errdesc_t* ws_df(const ks_hypervisor_config_t& hvc, std::vector<datastore_info_t>* list) {
    json_ptr data;
    RETURN_IF_ERROR(jrpc_single_call_raw(hvc, {"df"}, &data));
    std::vector<datastore_info_t> found;
    errdesc_t* e = decode_list(data.get(), &found);
    if (list == nullptr)
        return e;
    if (e != nullptr)
        list->clear();
    else
        list->insert(list->end(), std::make_move_iterator(found.begin()), std::make_move_iterator(found.end()));
    return e;
}

}  // namespace mirador
