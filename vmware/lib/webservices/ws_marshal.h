// SPDX-License-Identifier: Apache-2.0
// The pieces that requests to the agent and the marshallers of its records share (lib/jdr.h). Records own their texts:
// what is decoded is a copy, and lives on without the reply.
#pragma once

#include <json-c/json_object.h>
#include <sys/types.h>

#include <cerrno>
#include <iterator>
#include <string>
#include <vector>

#include "controller/lib/kestrel_types.h"
#include "lib/cor_assert.h"
#include "lib/errdesc.h"
#include "lib/jdr.h"
#include "vmware/lib/webservices/ws_session.h"

namespace mirador {

// A flag as the agent takes it.
inline const char* ws_flag(bool value) {
    return value ? "1" : "0";
}

// jdr_string for a text that the record owns.
inline ssize_t jdr_text(jdr_op_t op, json_object** obj, const char* key, std::string* text) {
    const char* value = text->c_str();
    const ssize_t size = jdr_string(op, obj, key, &value);
    if (op == JDR_DECODE && size != jdr_failed)
        *text = value;
    else if (op == JDR_FREE)
        text->clear();
    return size;
}

// The marshaller of a record: an object as member `key` of *obj, or *obj itself without a key. `fields(op, object,
// record)` passes its members through and tells whether all went well; after a failed decoding the record may hold
// some.
template <typename record_t, typename fields_t>
ssize_t jdr_record(jdr_op_t op, json_object** obj, const char* key, record_t* record, fields_t fields) {
    if (op == JDR_SIZE)
        return sizeof *record;
    cor_assert(obj != nullptr && record != nullptr);
    const bool is_new = *obj == nullptr;
    if (is_new && op != JDR_ENCODE)
        return jdr_failed;
    json_object* const sub = jdr_get_sub_obj(op, *obj, key);
    if (json_object_is_type(sub, json_type_object) == 0)
        return jdr_failed;
    if (!fields(op, sub, record)) {
        if (is_new)
            json_object_put(sub);
        return jdr_failed;
    }
    if (key == nullptr)
        *obj = sub;
    return sizeof *record;
}

// Calls a method whose reply is an array of records, and appends them to *list; null: the reply is only checked.
// Errors: the session's and the agent's; ENOENT for a reply without data, with data that is no array, or with an
// element that `marshal` does not decode. The list is empty then.
template <typename record_t, typename marshal_t>
[[nodiscard]] errdesc_t* ws_call_for_list(const ks_hypervisor_config_t& hvc, const jrpc_args_t& args, marshal_t marshal,
                                          std::vector<record_t>* list) {
    json_ptr data;
    std::vector<record_t> found;
    errdesc_t* e = jrpc_single_call_raw(hvc, args, &data);
    json_object* array = data.get();
    if (e == nullptr && jdr_array(JDR_DECODE, &array, nullptr, &found, marshal) < 0)
        e = errdesc_set_fmt(ENOENT, "%s: the agent's reply is no whole list", args.front().c_str());
    if (list == nullptr)
        return e;
    if (e != nullptr)
        list->clear();
    else
        list->insert(list->end(), std::make_move_iterator(found.begin()), std::make_move_iterator(found.end()));
    return e;
}

}  // namespace mirador
