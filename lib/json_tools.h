// SPDX-License-Identifier: Apache-2.0
// JSON values: ownership, building objects, reading one from a stream, printing for debugging.
#pragma once

#include <json-c/json_object.h>
#include <json-c/json_tokener.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace mirador {

struct json_putter_t {
    void operator()(json_object* value) const { json_object_put(value); }
};

// Owns one reference to a JSON value. Null is JSON's null, too.
using json_ptr = std::unique_ptr<json_object, json_putter_t>;

// The add functions put a member into `obj`, which is an object, in place of an earlier one of that name.

// A string; an absent one is sent as "", after a line "warning: empty value for field "<name>"" on standard error.
void json_add_string_field(json_object* obj, const char* name, const std::optional<std::string>& value);

// A number.
void json_add_int_field(json_object* obj, const char* name, std::int32_t value);

// A string of decimal digits: how the controller takes unsigned numbers.
void json_add_uint64_field(json_object* obj, const char* name, std::uint64_t value);
void json_add_uint32_field(json_object* obj, const char* name, std::uint32_t value);

// Finds one value in text that arrives in pieces. One value per parser.
class json_parser_t {
  public:
    enum outcome_t { MORE, WHOLE, INVALID };

    json_parser_t();
    ~json_parser_t();
    json_parser_t(const json_parser_t&) = delete;
    json_parser_t& operator=(const json_parser_t&) = delete;

    // Takes the next piece. *used is how much of it belongs to the value: all of it while MORE is wanted. INVALID: it
    // is no JSON, or nested deeper than 32 levels; prints "Parse error: <address>" to standard output.
    outcome_t feed(std::string_view piece, std::size_t* used);

    // The value, once it is WHOLE; null before, and when it is INVALID.
    json_ptr take() { return std::move(value_); }

  private:
    json_tokener* tokener_;
    json_ptr value_;
};

// Reads exactly one value from the stream, byte by byte, and nothing behind it; blocks until it is whole. A number is
// whole at the byte behind it. Null at the end of the stream (std::feof, std::ferror tell), for the value null, and for
// what is INVALID to a parser.
json_ptr json_read_object(std::FILE* stream);

// Prints "JSON result:" and the value's text to standard output.
void json_debug_dump(json_object* value);

// Prints a value of any kind to standard output, members and elements on lines of their own, indented.
void json_print_object(json_object* value);

}  // namespace mirador
