// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include <cinttypes>
#include <cstring>

#include "appliance/lib/corcbt.h"
#include "tools/mirador-inspect/inspect.h"
#include "tools/mirador-inspect/inspect_json.h"

namespace mirador {
namespace {

template <std::size_t size>
std::string_view field_text(const char (&field)[size]) {
    return {field, strnlen(field, size)};
}

json_ptr extents_json(const cbt_extent_list_t& list) {
    json_ptr extents = json_array();
    for (const cbt_extent_data_t& extent : list) {
        json_ptr json = json_map();
        json_add(json, "start", json_signed(extent.start));
        json_add(json, "length", json_signed(extent.length));
        json_append(extents, std::move(json));
    }
    return extents;
}

json_ptr corcbt_json(const cbt_file_header_t& h, const cbt_extent_list_t& list, const errdesc_t* fault) {
    json_ptr json = json_map();
    json_add(json, "version", json_number(h.version));
    json_add(json, "changeid", json_text(field_text(h.changeid)));
    json_add(json, "device", json_text(field_text(h.device)));
    json_add(json, "flat_file_size", json_signed(h.flat_file_size));
    json_add(json, "corcbt_file_size", json_signed(h.corcbt_file_size));
    json_add(json, "block_list_offset", json_signed(h.block_list_offset));
    json_add(json, "block_data_offset", json_signed(h.block_data_offset));
    json_add(json, "total_change_size", json_signed(h.total_change_size));
    json_add(json, "extents", extents_json(list));
    json_add(json, "fault", fault != nullptr ? json_text(fault->string) : json_null());
    return json;
}

void print_text(const cbt_file_header_t& h, const cbt_extent_list_t& list, std::FILE* out) {
    const std::string changeid(field_text(h.changeid));
    const std::string device(field_text(h.device));
    std::fprintf(out, "version:            %" PRIu32 "\nchangeid:           %s\ndevice:             %s\n", h.version,
                 changeid.c_str(), device.c_str());
    std::fprintf(out, "flat_file_size:     %" PRId64 "\ncorcbt_file_size:   %" PRId64 "\n", h.flat_file_size,
                 h.corcbt_file_size);
    std::fprintf(out, "block_list_offset:  %" PRId64 "\nblock_data_offset:  %" PRId64 "\n", h.block_list_offset,
                 h.block_data_offset);
    std::fprintf(out, "total_change_size:  %" PRId64 "\nextents:            %zu\n", h.total_change_size, list.size());
    std::int64_t data = h.block_data_offset;
    for (const cbt_extent_data_t extent : list) {
        std::fprintf(out, "  %" PRId64 " bytes of the disk from %" PRId64 " on, data at %" PRId64 "\n", extent.length,
                     extent.start, data);
        if (__builtin_add_overflow(data, extent.length, &data))
            data = -1;
    }
}

}  // namespace

errdesc_t* inspect_corcbt(inspect_file_t& file, const inspect_options_t& options, std::FILE* out) {
    cbt_file_header_t header{};
    cbt_extent_list_t list;
    errdesc_t* fault = read_corcbt_header_fd(file.fd.get(), file.path, &header, &list);
    if (header.magic_header != cbt_file_header_t::magic_value)
        return fault;
    if (fault == nullptr)
        fault = check_corcbt(header, list, lseek(file.fd.get(), 0, SEEK_END));
    if (options.json)
        json_print(corcbt_json(header, list, fault), out);
    else
        print_text(header, list, out);
    return fault;
}

}  // namespace mirador
