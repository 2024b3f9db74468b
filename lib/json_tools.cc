// SPDX-License-Identifier: Apache-2.0
#include "lib/json_tools.h"

#include <cinttypes>

#include "lib/cor_assert.h"
#include "lib/cor_string.h"

namespace mirador {
namespace {

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

json_parser_t::json_parser_t() : tokener_(json_tokener_new()) {
    cor_assert(tokener_ != nullptr);
}

json_parser_t::~json_parser_t() {
    json_tokener_free(tokener_);
}

json_parser_t::outcome_t json_parser_t::feed(std::string_view piece, std::size_t* used) {
    // Far below what the tokener can count.
    constexpr std::size_t most_at_once = std::size_t{1} << 20;
    for (*used = 0; *used < piece.size();) {
        const std::string_view part = piece.substr(*used, most_at_once);
        value_.reset(json_tokener_parse_ex(tokener_, part.data(), static_cast<int>(part.size())));
        *used += json_tokener_get_parse_end(tokener_);
        const json_tokener_error outcome = json_tokener_get_error(tokener_);
        if (outcome == json_tokener_success)
            return WHOLE;
        if (outcome != json_tokener_continue) {
            std::printf("Parse error: %p\n", static_cast<void*>(tokener_));
            return INVALID;
        }
    }
    return MORE;
}

json_ptr json_read_object(std::FILE* stream) {
    cor_assert(stream != nullptr);
    json_parser_t parser;
    for (int c = std::getc(stream); c != EOF; c = std::getc(stream)) {
        const char byte = static_cast<char>(c);
        std::size_t used = 0;
        const json_parser_t::outcome_t outcome = parser.feed({&byte, 1}, &used);
        if (outcome != json_parser_t::MORE)
            return parser.take();
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
