// SPDX-License-Identifier: Apache-2.0
#include "controller/lib/jdr_ds_config.h"

#include <utility>

#include "controller/lib/json_fields.h"
#include "controller/lib/json_records.h"
#include "lib/cor_assert.h"

namespace mirador {
namespace {

constexpr const char* paths_key = "paths";

ssize_t marshal_text(jdr_op_t op, json_object** obj, const char* key, ks_string_t* text) {
    const char* value = *text ? (*text)->c_str() : nullptr;
    if (op == JDR_ENCODE && value == nullptr)
        return jdr_failed;
    const ssize_t size = jdr_string(op, obj, key, &value);
    if (op == JDR_DECODE && size != jdr_failed)
        *text = value;
    else if (op == JDR_FREE)
        text->reset();
    return size;
}

ssize_t marshal_flag(jdr_op_t op, json_object** obj, const char* key, bool* flag) {
    std::uint32_t value = *flag ? 1 : 0;
    const ssize_t size = jdr_uint32(op, obj, key, &value);
    *flag = value != 0;
    return size;
}

// In the order of the wire, where "hv" goes before the URL and again behind it.
bool marshal_fields(jdr_op_t op, json_object* obj, ks_ds_config_t* dsc) {
    return marshal_text(op, &obj, "hv", &dsc->hv) >= 0 && marshal_text(op, &obj, "name", &dsc->name) >= 0 &&
           marshal_text(op, &obj, "uuid", &dsc->uuid) >= 0 && marshal_text(op, &obj, "url", &dsc->url) >= 0 &&
           marshal_text(op, &obj, "hv", &dsc->hv) >= 0 && marshal_text(op, &obj, "hostsystem", &dsc->hostsystem) >= 0 &&
           marshal_text(op, &obj, "type", &dsc->type) >= 0 && marshal_text(op, &obj, "dc", &dsc->dc) >= 0 &&
           jdr_int32(op, &obj, "timestamp", &dsc->timestamp) >= 0 &&
           jdr_uint32(op, &obj, "accessible", &dsc->accessible) >= 0 &&
           jdr_uint64(op, &obj, "capacity", &dsc->capacity) >= 0 &&
           jdr_uint64(op, &obj, "freeSpace", &dsc->free_space) >= 0 &&
           marshal_flag(op, &obj, "is_local_dc", &dsc->is_local_dc) >= 0;
}

void encode_paths(json_object* obj, const ks_ds_config_t& dsc) {
    json_object* const array = json_object_new_array();
    if (dsc.paths)
        list_iter(std::as_const(*dsc.paths),
                  [&](const std::string& path) { return encode_datastore_path(array, path); });
    json_object_object_add(obj, paths_key, array);
}

void decode_paths(json_object* obj, ks_ds_config_t* dsc) {
    dsc->paths = list_new<std::string>();
    json_object* const array = json_member(obj, paths_key);
    if (json_object_is_type(array, json_type_array) == 0)
        return;
    for (std::size_t i = 0; i < json_object_array_length(array); i++) {
        json_object* const path = json_object_array_get_idx(array, i);
        if (json_object_is_type(path, json_type_string) != 0)
            list_add(*dsc->paths, std::string(json_object_get_string(path)));
    }
}

void marshal_paths(jdr_op_t op, json_object* obj, ks_ds_config_t* dsc) {
    if (op == JDR_ENCODE) {
        encode_paths(obj, *dsc);
    } else if (op == JDR_DECODE) {
        decode_paths(obj, dsc);
    } else {
        dsc->paths.reset();
        json_object_object_del(obj, paths_key);
    }
}

}  // namespace

ssize_t jdr_ds_config(jdr_op_t op, json_object** obj, const char* key, ks_ds_config_t* dsc) {
    if (op == JDR_SIZE)
        return sizeof *dsc;
    cor_assert(obj != nullptr && dsc != nullptr);
    const bool is_new = *obj == nullptr;
    json_object* const sub = jdr_get_sub_obj(op, *obj, key);
    if (json_object_is_type(sub, json_type_object) == 0)
        return jdr_failed;
    if (!marshal_fields(op, sub, dsc)) {
        if (is_new)
            json_object_put(sub);
        return jdr_failed;
    }
    marshal_paths(op, sub, dsc);
    if (key == nullptr)
        *obj = sub;
    return sizeof *dsc;
}

}  // namespace mirador
