// SPDX-License-Identifier: Apache-2.0
#include "lib/json_tools.h"

#include <json-c/json_tokener.h>

#include <cinttypes>

#include "lib/cor_assert.h"
#include "lib/cor_string.h"

namespace mirador {
namespace {

struct tokener_freer_t {
    void operator()(json_tokener* tokener) const { json_tokener_free(tokener); }
};
using tokener_ptr = std::unique_ptr<json_tokener, tokener_freer_t>;

json_object* new_string(const std::string& text) {
    return json_object_new_string_len(text.c_str(), static_cast<int>(text.size()));
}

void add_field(json_object* obj, const char* name, json_object* value) {
    cor_assert(obj != nullptr);
    cor_assert(name != nullptr);
    cor_assert(json_object_object_add(obj, name, value) == 0);
}

}  // namespace

void json_add_string_field(json_object* obj, const char* name, const std::optional<std::string>& value) {
    if (!value)
        std::fprintf(stderr, "warning: empty value for field \"%s\"\n", name);
    add_field(obj, name, new_string(value.value_or("")));
}

void json_add_int_field(json_object* obj, const char* name, std::int32_t value) {
    add_field(obj, name, json_object_new_int(value));
}

void json_add_uint64_field(json_object* obj, const char* name, std::uint64_t value) {
    add_field(obj, name, new_string(cor_format("%ju", std::uintmax_t{value})));
}

void json_add_uint32_field(json_object* obj, const char* name, std::uint32_t value) {
    json_add_uint64_field(obj, name, value);
}

json_ptr json_read_object(std::FILE* stream) {
    cor_assert(stream != nullptr);
    const tokener_ptr tokener(json_tokener_new());
    cor_assert(tokener != nullptr);
    for (int c = std::getc(stream); c != EOF; c = std::getc(stream)) {
        const char byte = static_cast<char>(c);
        json_ptr value(json_tokener_parse_ex(tokener.get(), &byte, 1));
        const json_tokener_error outcome = json_tokener_get_error(tokener.get());
        if (outcome == json_tokener_success)
            return value;
        if (outcome != json_tokener_continue) {
            std::printf("Parse error: %p\n", static_cast<void*>(tokener.get()));
            return nullptr;
        }
    }
    return nullptr;
}

void json_debug_dump(json_object* value) {
    std::printf("JSON result:\n%s\n", json_object_to_json_string(value));
}

void json_print_object(json_object* value) {
    std::printf("%s\n", json_object_to_json_string_ext(value, JSON_C_TO_STRING_PRETTY));
}

}  // namespace mirador
