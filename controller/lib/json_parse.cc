// SPDX-License-Identifier: Apache-2.0
#include "controller/lib/json_parse.h"

#include "controller/lib/json_fields.h"
#include "controller/lib/json_records.h"
#include "lib/cor_assert.h"

namespace mirador {
namespace {

struct wording_t {
    const char* not_json = "couldn't parse json_string";
    const char* wrong_type = "unknown json_type";
};
constexpr wording_t folder_wording = {.not_json = "Couldn't parse json_string", .wrong_type = "Unknown json_type"};

constexpr const char* corcbt_mark = "-corcbt.";

// Calls take(element) for each element of an array that is not null.
template <typename take_t>
void take_elements(json_object* array, const take_t& take) {
    const std::size_t count = json_object_array_length(array);
    std::size_t nulls = 0;
    for (std::size_t i = 0; i < count; i++) {
        json_object* const element = json_object_array_get_idx(array, i);
        if (element == nullptr)
            nulls++;
        else
            take(element);
    }
    if (nulls > 0)
        _errdesc_log(
            errdesc_set_fmt(ERR_JSON_PARSE_ERROR, "left out %zu null of %zu elements in json array", nulls, count),
            ERRDESC_WARNING);
}

template <typename take_t>
errdesc_t* take_records(const std::string& text, const wording_t& wording, const take_t& take) {
    const json_ptr reply = json_parse_text(text);
    if (reply == nullptr)
        return errdesc_set_str(ERR_JSON_PARSE_ERROR, wording.not_json);
    if (json_object_is_type(reply.get(), json_type_object) != 0)
        take(reply.get());
    else if (json_object_is_type(reply.get(), json_type_array) != 0)
        take_elements(reply.get(), take);
    else
        return errdesc_set_str(ERR_JSON_PARSE_ERROR, wording.wrong_type);
    return nullptr;
}

bool has_members(json_object* value) {
    return json_object_is_type(value, json_type_object) != 0 && json_object_object_length(value) > 0;
}

template <typename record_t>
errdesc_t* take_objects(const std::string& text, const wording_t& wording, record_t (*convert)(json_object*),
                        list_t<record_t>* list, int* n_added) {
    cor_assert(list != nullptr);
    cor_assert(n_added != nullptr);
    *n_added = 0;
    return take_records(text, wording, [&](json_object* element) {
        if (!has_members(element))
            return;
        list_add(*list, convert(element));
        (*n_added)++;
    });
}

errdesc_t* missing(const char* member) {
    return errdesc_set_fmt(ERR_JSON_MISSING_FIELD, "Missing %s in json string", member);
}

}  // namespace

errdesc_t* json_parse_hv_config(const std::string& text, list_t<ks_hypervisor_config_t>* list, int* n_added) {
    return take_objects(text, {}, json_to_hv_config, list, n_added);
}

errdesc_t* json_parse_vm_config(const std::string& text, list_t<ks_vm_config_t>* list, int* n_added) {
    return take_objects(text, {}, json_to_vm_config, list, n_added);
}

errdesc_t* json_parse_nfs_datastores_config(const std::string& text, list_t<ks_nfs_datastore_config_t>* list,
                                            int* n_added) {
    return take_objects(text, {}, json_to_nfs_datastore_config, list, n_added);
}

errdesc_t* json_parse_folders(const std::string& text, list_t<ks_vm_folder_t>* list) {
    if (text.empty() || list == nullptr)
        return errdesc_set_str(ERR_INVALID_ARG, "Both json string and folder list are required.");
    int n_added = 0;
    return take_objects(text, folder_wording, json_to_folder, list, &n_added);
}

errdesc_t* json_parse_datastores_config(const std::string& text, list_t<ks_ds_config_t>* list) {
    cor_assert(list != nullptr);
    return take_records(text, {}, [&](json_object* element) { list_add(*list, json_to_ds_config(element)); });
}

errdesc_t* json_parse_vdisk(const std::string& text, bool include_corcbt, list_t<ks_vdisk_t>* list) {
    cor_assert(list != nullptr);
    return take_records(text, {}, [&](json_object* element) {
        ks_vdisk_t vd = json_to_vdisk(element);
        if (vd.name && (include_corcbt || vd.name->find(corcbt_mark) == std::string::npos))
            list_add(*list, std::move(vd));
    });
}

errdesc_t* json_parse_registry_value(const std::string& text, const std::string& key, std::string* value,
                                     std::size_t size) {
    cor_assert(value != nullptr);
    cor_assert(size > 0);
    const json_ptr reply = json_parse_text(text);
    if (reply == nullptr)
        return errdesc_set_str(ERR_JSON_PARSE_ERROR, "could not parse json_string");
    if (json_member(reply.get(), "error_code") == nullptr)
        return missing("error_code");
    if (json_int_member(reply.get(), "error_code") != 0)
        return errdesc_set_fmt(ERR_REGISTRY_KEY_NOT_FOUND, "Registry %s is not found", key.c_str());
    const ks_string_t result = json_text_member(reply.get(), "result");
    if (!ks_is_set(result))
        return missing("result");
    *value = result->substr(0, size - 1);
    return nullptr;
}

errdesc_t* json_parse_gen_id(const std::string& text, std::string* gen_id) {
    cor_assert(gen_id != nullptr);
    gen_id->clear();
    const json_ptr reply = json_parse_text(text);
    if (reply == nullptr)
        return errdesc_set_fmt(ERR_JSON_PARSE_ERROR, "couldn't parse json_string: %s", text.c_str());
    *gen_id = ks_text(json_text_member(reply.get(), "genId"));
    return nullptr;
}

}  // namespace mirador
