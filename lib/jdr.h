// SPDX-License-Identifier: Apache-2.0
// Marshalling: one function per type that turns a native value into JSON, JSON into the native value, and lets both go.
// A record's marshaller calls those of its fields, one line each, whatever the mode.
//
// Every marshaller takes (op, &obj, key, &native) and returns the size of the native type in bytes, or -1 when the mode
// failed:
//   JDR_SIZE    nothing else; the other arguments may be null.
//   JDR_ENCODE  puts the value into the object *obj as member `key`. Without a key (null) *obj must be null and becomes
//               the value, owned by the caller.
//   JDR_DECODE  reads member `key` of *obj, or without a key *obj itself, into the native value. -1 when it is absent,
//               null or of another type; the native value is then what it was.
//   JDR_FREE    resets the native value and deletes member `key` from *obj; without a key the JSON stays.
// Strings and JSON values that were decoded belong to the JSON that they were decoded from and go with it.
#pragma once

#include <json-c/json_object.h>
#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <vector>

#include "lib/json_tools.h"

namespace mirador {

enum jdr_op_t { JDR_SIZE = 0, JDR_ENCODE = 1, JDR_DECODE = 2, JDR_FREE = 3 };

inline constexpr ssize_t jdr_failed = -1;

// Where a record's members go or come from. `obj` null: a new object, owned by the caller (asserted: encoding, no key).
// No key: `obj`. Otherwise, encoding, a new object that is now member `key` of `obj`; else that member, null when there
// is none.
json_object* jdr_get_sub_obj(jdr_op_t op, json_object* obj, const char* key);

// Whole numbers. Decoding takes JSON integers only; the 32-bit ones must fit: -2^31 to 2^31 - 1 for jdr_int32, and for
// jdr_uint32 to 2^32 - 1, where a negative one stands for the same 32 bits. Free sets all bits.
ssize_t jdr_int32(jdr_op_t op, json_object** obj, const char* key, std::int32_t* value);
ssize_t jdr_uint32(jdr_op_t op, json_object** obj, const char* key, std::uint32_t* value);
ssize_t jdr_int64(jdr_op_t op, json_object** obj, const char* key, std::int64_t* value);
ssize_t jdr_uint64(jdr_op_t op, json_object** obj, const char* key, std::uint64_t* value);

// Seconds since the epoch.
ssize_t jdr_time_t(jdr_op_t op, json_object** obj, const char* key, std::time_t* value);

// A string; null cannot be encoded. A decoded one is not copied. Free sets null.
ssize_t jdr_string(jdr_op_t op, json_object** obj, const char* key, const char** value);

// A JSON value as it is. Encoding takes a reference of its own; a decoded value has none. Free sets null.
ssize_t jdr_json_object(jdr_op_t op, json_object** obj, const char* key, json_object** value);

// The pieces of jdr_array that do not depend on the element.

// Puts `value` where JDR_ENCODE is told to, and takes it over.
void _jdr_put(json_object** obj, const char* key, json_object* value);

// What JDR_DECODE reads; null when there is none.
json_object* _jdr_get(json_object* obj, const char* key);

// Deletes member `key` of `obj`, if there is one.
void _jdr_delete(json_object* obj, const char* key);

template <typename T, typename element_fn_t>
ssize_t _jdr_array_encode(json_object** obj, const char* key, std::vector<T>* array, element_fn_t& element_fn) {
    json_ptr encoded(json_object_new_array());
    for (T& element : *array) {
        json_object* value = nullptr;
        const bool failed = element_fn(JDR_ENCODE, &value, nullptr, &element) < 0;
        json_object_array_add(encoded.get(), value);
        if (failed)
            return jdr_failed;
    }
    _jdr_put(obj, key, encoded.release());
    return static_cast<ssize_t>(array->size() * sizeof(T));
}

template <typename T, typename element_fn_t>
ssize_t _jdr_array_decode(json_object* encoded, std::vector<T>* array, element_fn_t& element_fn) {
    array->clear();
    if (!json_object_is_type(encoded, json_type_array))
        return jdr_failed;
    for (std::size_t i = 0; i < json_object_array_length(encoded); i++) {
        json_object* value = json_object_array_get_idx(encoded, i);
        if (value == nullptr || element_fn(JDR_DECODE, &value, nullptr, &array->emplace_back()) < 0) {
            array->clear();
            return jdr_failed;
        }
    }
    return static_cast<ssize_t>(array->size() * sizeof(T));
}

// `encoded` may be shorter than the native array, or null.
template <typename T, typename element_fn_t>
ssize_t _jdr_array_free(json_object* encoded, std::vector<T>* array, element_fn_t& element_fn) {
    const auto size = static_cast<ssize_t>(array->size() * sizeof(T));
    for (std::size_t i = 0; i < array->size(); i++) {
        // A reference of its own, which an element that is an array releases.
        json_object* value = encoded != nullptr ? json_object_get(json_object_array_get_idx(encoded, i)) : nullptr;
        (void)element_fn(JDR_FREE, &value, nullptr, &(*array)[i]);
        json_object_put(value);
    }
    array->clear();
    return size;
}

// An array of values, `element_fn` being the marshaller of one, called without a key. Returns their size all together,
// in size mode that of the native array itself. An element that fails, or null in the JSON array, fails it all:
// encoding then puts nothing, decoding leaves the native array empty. Free without a key releases *obj and sets it to
// null.
template <typename T, typename element_fn_t>
ssize_t jdr_array(jdr_op_t op, json_object** obj, const char* key, std::vector<T>* array, element_fn_t element_fn) {
    if (op == JDR_SIZE)
        return sizeof *array;
    if (op == JDR_ENCODE)
        return _jdr_array_encode(obj, key, array, element_fn);
    json_object* const encoded = _jdr_get(*obj, key);
    if (op == JDR_DECODE)
        return _jdr_array_decode(encoded, array, element_fn);

    const bool is_array = json_object_is_type(encoded, json_type_array) != 0;
    const ssize_t size = _jdr_array_free(is_array ? encoded : nullptr, array, element_fn);
    _jdr_delete(*obj, key);
    if (key == nullptr) {
        json_object_put(*obj);
        *obj = nullptr;
    }
    return size;
}

}  // namespace mirador
