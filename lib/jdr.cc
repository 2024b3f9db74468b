// SPDX-License-Identifier: Apache-2.0
#include "lib/jdr.h"

#include <limits>
#include <type_traits>

#include "lib/cor_assert.h"

namespace mirador {
namespace {

template <typename T>
json_object* new_integer(T value) {
    if constexpr (std::numeric_limits<T>::is_signed)
        return json_object_new_int64(value);
    else
        return json_object_new_uint64(value);
}

// Takes the integer over; false when it is none or does not fit.
template <typename T>
bool read_integer(json_object* encoded, T* value) {
    if (!json_object_is_type(encoded, json_type_int))
        return false;
    const std::int64_t number = json_object_get_int64(encoded);  // cut to what fits
    if constexpr (sizeof(T) < sizeof number) {
        if (number < std::numeric_limits<std::int32_t>::min() || number > std::numeric_limits<T>::max())
            return false;
    }
    if constexpr (std::is_same_v<T, std::uint64_t>)
        *value = number < 0 ? static_cast<T>(number) : json_object_get_uint64(encoded);
    else
        *value = static_cast<T>(number);
    return true;
}

template <typename T>
ssize_t marshal_integer(jdr_op_t op, json_object** obj, const char* key, T* value) {
    switch (op) {
        case JDR_SIZE:
            break;
        case JDR_ENCODE:
            _jdr_put(obj, key, new_integer(*value));
            break;
        case JDR_DECODE:
            if (!read_integer(_jdr_get(*obj, key), value))
                return jdr_failed;
            break;
        case JDR_FREE:
            *value = static_cast<T>(-1);
            _jdr_delete(*obj, key);
            break;
    }
    return sizeof(T);
}

}  // namespace

void _jdr_put(json_object** obj, const char* key, json_object* value) {
    cor_assert(obj != nullptr);
    if (key != nullptr) {
        cor_assert(json_object_object_add(*obj, key, value) == 0);
        return;
    }
    cor_assert(*obj == nullptr);
    *obj = value;
}

json_object* _jdr_get(json_object* obj, const char* key) {
    if (key == nullptr)
        return obj;
    json_object* member = nullptr;
    json_object_object_get_ex(obj, key, &member);
    return member;
}

void _jdr_delete(json_object* obj, const char* key) {
    if (key != nullptr && json_object_is_type(obj, json_type_object))
        json_object_object_del(obj, key);
}

json_object* jdr_get_sub_obj(jdr_op_t op, json_object* obj, const char* key) {
    if (obj == nullptr) {
        cor_assert_text(op == JDR_ENCODE, "op == JDR_ENCODE");
        cor_assert_text(key == nullptr, "key == ((void *)0)");
        return json_object_new_object();
    }
    if (key == nullptr || op != JDR_ENCODE)
        return _jdr_get(obj, key);
    json_object* const member = json_object_new_object();
    _jdr_put(&obj, key, member);
    return member;
}

ssize_t jdr_int32(jdr_op_t op, json_object** obj, const char* key, std::int32_t* value) {
    return marshal_integer(op, obj, key, value);
}

ssize_t jdr_uint32(jdr_op_t op, json_object** obj, const char* key, std::uint32_t* value) {
    return marshal_integer(op, obj, key, value);
}

ssize_t jdr_int64(jdr_op_t op, json_object** obj, const char* key, std::int64_t* value) {
    return marshal_integer(op, obj, key, value);
}

ssize_t jdr_uint64(jdr_op_t op, json_object** obj, const char* key, std::uint64_t* value) {
    return marshal_integer(op, obj, key, value);
}

ssize_t jdr_time_t(jdr_op_t op, json_object** obj, const char* key, std::time_t* value) {
    return marshal_integer(op, obj, key, value);
}

ssize_t jdr_string(jdr_op_t op, json_object** obj, const char* key, const char** value) {
    if (op == JDR_ENCODE) {
        if (*value == nullptr)
            return jdr_failed;
        _jdr_put(obj, key, json_object_new_string(*value));
    } else if (op == JDR_DECODE) {
        json_object* const encoded = _jdr_get(*obj, key);
        if (!json_object_is_type(encoded, json_type_string))
            return jdr_failed;
        *value = json_object_get_string(encoded);
    } else if (op == JDR_FREE) {
        *value = nullptr;
        _jdr_delete(*obj, key);
    }
    return sizeof *value;
}

ssize_t jdr_json_object(jdr_op_t op, json_object** obj, const char* key, json_object** value) {
    if (op == JDR_ENCODE) {
        _jdr_put(obj, key, json_object_get(*value));
    } else if (op == JDR_DECODE) {
        json_object* const encoded = _jdr_get(*obj, key);
        if (encoded == nullptr)
            return jdr_failed;
        *value = encoded;
    } else if (op == JDR_FREE) {
        *value = nullptr;
        _jdr_delete(*obj, key);
    }
    return sizeof *value;
}

}  // namespace mirador
