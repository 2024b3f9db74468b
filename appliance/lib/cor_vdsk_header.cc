// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/cor_vdsk_header.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>

#include "appliance/lib/mbr.h"
#include "lib/cor_assert.h"

namespace mirador {
namespace {

constexpr std::uint32_t sector_bytes = 512;
constexpr std::size_t varstring_count = 4;

// Where a record's variable strings lie; a null area for an unknown version.
struct varstrings_t {
    const char* area;
    std::size_t size;
};

varstrings_t varstrings_of(const cor_vdsk_header_t& h) {
    if (h.version == cor_vdsk_header_t::version_1)
        return {h.tail.v1.varstrings, sizeof h.tail.v1.varstrings};
    if (h.version == cor_vdsk_header_t::version_2)
        return {h.tail.v2.varstrings, sizeof h.tail.v2.varstrings};
    return {nullptr, 0};
}

// The room shrinks by the texts' lengths without their terminators, so the last texts' place is cut at the area's end.
bool set_variable_string(char* area, std::size_t size, const std::array<const char*, varstring_count>& strings) {
    auto room = static_cast<std::ptrdiff_t>(size);
    std::size_t at = 0;
    for (const char* string : strings) {
        if (string == nullptr || room < 1)
            break;
        const std::size_t length = std::strlen(string);
        const std::size_t count = std::min({length + 1, static_cast<std::size_t>(room), size - at});
        std::memcpy(area + at, string, count);
        at += count;
        room -= static_cast<std::ptrdiff_t>(length);
    }
    return room >= 0;
}

bool get_variable_string(const varstrings_t& strings, std::size_t index, std::string_view* out) {
    cor_assert(out->data() == nullptr);
    const std::string_view area(strings.area, strings.size);
    std::size_t begin = 0;
    while (index > 0 && begin < area.size()) {
        const std::size_t end = area.find('\0', begin);
        begin = end == std::string_view::npos ? area.size() : end + 1;
        index--;
    }
    const bool found = begin < area.size();
    *out = area.substr(found ? begin : area.size() - 1);
    *out = out->substr(0, out->find('\0'));
    return found;
}

const char* type_str(std::uint8_t type) {
    switch (type) {
        case COR_VDSK_VMDK:
            return "type: VMDK";
        case COR_VDSK_VHD:
            return "type: VHD";
        default:
            return "Unknown type";
    }
}

void dump_attributes(std::uint8_t attributes, std::FILE* stream) {
    struct {
        cor_vdsk_attribute_t bit;
        const char* name;
    } constexpr names[] = {
        {COR_VDSK_PERSISTENT, "persistent"},       {COR_VDSK_THIN, "thin provisioned"},
        {COR_VDSK_WRITE_THROUGH, "write through"}, {COR_VDSK_SPLIT, "split"},
        {COR_VDSK_EAGERLY_SCRUB, "eagerly scrub"}, {COR_VDSK_CBT_ENABLED, "cbt enabled"},
    };
    std::fputs("attributes: ", stream);
    for (const auto& [bit, name] : names)
        if ((attributes & bit) != 0)
            std::fprintf(stream, "%s, ", name);
    std::fputc('\n', stream);
}

// Local calendar text without a line end.
std::string time_text(std::time_t time) {
    std::array<char, 64> text{};
    const char* shown = ctime_r(&time, text.data());
    return shown != nullptr ? std::string(shown, std::strcspn(shown, "\n")) : "?";
}

void dump_ids(const cor_vdsk_header_t& h, std::FILE* stream) {
    if ((h.attributes & COR_VDSK_CBT_ENABLED) != 0)
        std::fprintf(stream, "change id: %s/%d\n", uuid_value_to_str(h.change_id).c_str(),
                     static_cast<int>(cor_vdsk_change_suffix(h)));
    std::fprintf(stream, "disk id: %s\n", uuid_value_to_str(h.disk_uuid).c_str());
    std::fprintf(stream, "virtual machine id: %s\n", uuid_value_to_str(h.vm_uuid).c_str());
    std::fprintf(stream, "datastore id: %s\n", uuid_value_to_str(h.ds_uuid).c_str());
}

void dump_strings(const cor_vdsk_header_t& h, std::FILE* stream) {
    std::string_view path;
    std::string_view ds;
    std::string_view hv;
    std::string_view vm;
    if (!get_vmdk_variable_strings(h, &path, &ds, &hv, &vm))
        std::fputs("(Some of the following strings may be truncated)\n", stream);
    const auto line = [stream](const char* label, std::string_view text) {
        std::fprintf(stream, "%s: %.*s\n", label, static_cast<int>(text.size()), text.data());
    };
    line("HV", hv);
    line("VM", vm);
    line("DS", ds);
    line("path", path);
}

void dump_vmdk(const cor_vdsk_header_t& h, std::FILE* stream) {
    std::fprintf(stream, "version: %d\n", int{h.version});
    std::fprintf(stream, "cid: %8.8x\n", h.cid);
    std::fprintf(stream, "disk size: %jd\n", intmax_t{h.size} * sector_bytes);
    std::fprintf(stream, "create type: %s\n", cor_vdsk_createtype_str(h.createtype));
    dump_attributes(h.attributes, stream);
    std::fprintf(stream, "snapshot time: %s\n", time_text(cor_vdsk_snapshot_time(h)).c_str());
    dump_ids(h, stream);
    dump_strings(h, stream);
}

}  // namespace

std::unique_ptr<cor_vdsk_header_t> new_cor_vdsk_header() {
    auto h = std::make_unique<cor_vdsk_header_t>();
    h->magic_begin = cor_vdsk_header_t::magic_value;
    h->magic_end = cor_vdsk_header_t::magic_value;
    h->version = cor_vdsk_header_t::version_2;
    return h;
}

void destroy_cor_vdsk_header(std::unique_ptr<cor_vdsk_header_t>* h) {
    cor_assert(h != nullptr);
    h->reset();
}

bool is_cor_vdsk_header(const cor_vdsk_header_t& h) {
    return h.magic_begin == cor_vdsk_header_t::magic_value && h.magic_end == cor_vdsk_header_t::magic_value;
}

std::uint32_t cor_vdsk_change_suffix(const cor_vdsk_header_t& h) {
    if (h.version == cor_vdsk_header_t::version_1)
        return h.tail.v1.change_suffix;
    return h.version == cor_vdsk_header_t::version_2 ? h.tail.v2.change_suffix : 0;
}

std::uint32_t cor_vdsk_snapshot_time(const cor_vdsk_header_t& h) {
    if (h.version == cor_vdsk_header_t::version_1)
        return h.tail.v1.snapshot_time;
    return h.version == cor_vdsk_header_t::version_2 ? h.tail.v2.snapshot_time : 0;
}

const char* cor_vdsk_createtype_str(std::uint8_t createtype) {
    static constexpr const char* names[] = {"unknown",
                                            "monolithic sparse",
                                            "VMFS sparse",
                                            "monolithic flat",
                                            "VMFS",
                                            "2GB extent sparse",
                                            "2GB extent flat",
                                            "full",
                                            "raw",
                                            "partitioned",
                                            "VMFS raw",
                                            "VMFS passthru raw",
                                            "stream optimized"};
    return createtype < std::size(names) ? names[createtype] : "unsupported";
}

bool set_vmdk_variable_strings(cor_vdsk_header_t* h, const char* s0, const char* s1, const char* s2, const char* s3) {
    cor_assert(h != nullptr);
    switch (h->version) {
        case cor_vdsk_header_t::version_1:
            return set_variable_string(h->tail.v1.varstrings, sizeof h->tail.v1.varstrings, {s0, s1, s2, s3});
        case cor_vdsk_header_t::version_2:
            return set_variable_string(h->tail.v2.varstrings, sizeof h->tail.v2.varstrings, {s0, s1, s2, s3});
        default:
            return true;
    }
}

bool get_vmdk_variable_strings(const cor_vdsk_header_t& h, std::string_view* s0, std::string_view* s1,
                               std::string_view* s2, std::string_view* s3) {
    const varstrings_t strings = varstrings_of(h);
    if (strings.area == nullptr)
        return true;
    bool all = true;
    std::size_t index = 0;
    for (std::string_view* out : {s0, s1, s2, s3}) {
        if (out != nullptr)
            all = get_variable_string(strings, index, out) && all;
        index++;
    }
    return all;
}

errdesc_t* read_cor_vdsk_header(int fd, cor_vdsk_header_t* h) {
    cor_assert(h != nullptr);
    std::uint32_t sector = no_sector;
    RETURN_IF_ERROR(find_free_sector_by_partition(fd, &sector));
    std::size_t len = sizeof *h;
    RETURN_IF_ERROR(read_sector(fd, off_t{sector} * off_t{sector_bytes}, &len, h));
    if (len < sizeof *h || !is_cor_vdsk_header(*h))
        return errdesc_set_str(ENODATA, "The data is not a valid recover header");
    return nullptr;
}

void dump_cor_vdsk_header(const cor_vdsk_header_t& h, std::FILE* stream) {
    if (!is_cor_vdsk_header(h)) {
        std::fputs("Invalid recover header\n", stream);
        return;
    }
    std::fprintf(stream, "%s\n", type_str(h.type));
    if (h.type != COR_VDSK_VMDK)
        return;
    if (varstrings_of(h).area == nullptr)
        std::fputs("Unknown version number\n", stream);
    else
        dump_vmdk(h, stream);
}

}  // namespace mirador
