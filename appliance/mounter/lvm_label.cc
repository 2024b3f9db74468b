// SPDX-License-Identifier: Apache-2.0
#include "appliance/mounter/lvm_label.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <cstring>
#include <optional>
#include <span>
#include <string_view>
#include <type_traits>
#include <vector>

#include "lib/file_io.h"

namespace mirador {
namespace {

constexpr std::size_t sector_bytes = 512;
constexpr std::size_t label_sectors = 4;  // the label stands in one of the first four
constexpr std::string_view label_id = "LABELONE";
constexpr std::string_view label_type = "LVM2 001";
constexpr std::string_view area_magic = "\x20\x4c\x56\x4d\x32\x20\x78\x5b\x35\x41\x25\x72\x30\x4e\x2a\x3e";
constexpr std::size_t max_group_name = 127;
constexpr std::uint32_t copy_ignored = 1;  // flag of a metadata copy that is not kept up

#pragma pack(push, 1)
struct label_t {
    char id[8];
    std::uint64_t sector;
    std::uint32_t crc;
    std::uint32_t content_offset;  // of the volume header, from the label's start
    char type[8];
};
struct volume_header_t {
    char uuid[32];
    std::uint64_t device_size;
};
// A place on the volume. The volume header is followed by the list of data areas and that of metadata areas, each
// ended by an entry with offset 0.
struct area_t {
    std::uint64_t offset;
    std::uint64_t size;
};
struct text_copy_t {
    std::uint64_t offset;  // from the area's start
    std::uint64_t size;
    std::uint32_t crc;
    std::uint32_t flags;
};
struct area_header_t {
    std::uint32_t crc;
    char magic[16];
    std::uint32_t version;
    std::uint64_t start;
    std::uint64_t size;
    text_copy_t copy;  // the current text; more may follow
};
#pragma pack(pop)
static_assert(sizeof(label_t) == 32 && sizeof(volume_header_t) == 40 && sizeof(area_t) == 16);
static_assert(sizeof(area_header_t) == 64 && offsetof(area_header_t, copy) == 40);

// The bytes of a device that are one volume; nothing outside them is read.
struct volume_t {
    int fd;
    std::uint64_t offset;
    std::uint64_t size;

    bool read(std::uint64_t at, std::span<char> to) const {
        if (at > size || to.size() > size - at)
            return false;
        std::size_t done = 0;
        errdesc_t* e = cor_pread(fd, to.data(), to.size(), static_cast<off_t>(offset + at), &done);
        return e == nullptr && done == to.size();
    }
};

using sector_t = std::array<char, sector_bytes>;

// The record at `at` of a sector, if it lies within.
template <typename record_t>
std::optional<record_t> record_at(const sector_t& sector, std::size_t at) {
    static_assert(std::is_trivially_copyable_v<record_t>);
    if (at > sector.size() || sizeof(record_t) > sector.size() - at)
        return std::nullopt;
    record_t record;
    std::memcpy(&record, sector.data() + at, sizeof record);
    return record;
}

bool find_label(const volume_t& volume, sector_t* sector, label_t* label) {
    for (std::size_t i = 0; i < label_sectors && volume.read(i * sector_bytes, *sector); ++i) {
        *label = *record_at<label_t>(*sector, 0);
        if (std::string_view(label->id, sizeof label->id) == label_id &&
            std::string_view(label->type, sizeof label->type) == label_type)
            return true;
    }
    return false;
}

// The metadata areas that the label's sector lists.
std::vector<area_t> metadata_areas(const sector_t& sector, std::size_t volume_header_offset) {
    std::vector<area_t> areas;
    std::size_t at = volume_header_offset + sizeof(volume_header_t);
    for (int list = 0; list < 2; ++list) {
        for (;; at += sizeof(area_t)) {
            const auto area = record_at<area_t>(sector, at);
            if (!area)
                return {};
            if (area->offset == 0)
                break;
            if (list == 1)
                areas.push_back(*area);
        }
        at += sizeof(area_t);
    }
    return areas;
}

// The name in front of the first brace.
bool parse_group_name(std::string_view text, std::string* name) {
    const auto is_part = [](unsigned char c) {
        return std::isalnum(c) != 0 || std::string_view("+_.-").find(static_cast<char>(c)) != std::string_view::npos;
    };
    const auto end = static_cast<std::size_t>(std::ranges::find_if_not(text, is_part) - text.begin());
    if (end == 0 || end > max_group_name || !text.substr(end).starts_with(" {"))
        return false;
    *name = text.substr(0, end);
    return true;
}

// The metadata text runs from its offset to the area's end and goes on behind the area's header.
bool read_text_start(const volume_t& volume, const area_t& area, const text_copy_t& copy, std::string* text) {
    const std::uint64_t length = std::min<std::uint64_t>(copy.size, max_group_name + 2);
    if (copy.offset < sector_bytes || copy.offset >= area.size || area.size < 2 * sector_bytes)
        return false;
    const std::uint64_t before_end = std::min(length, area.size - copy.offset);
    text->resize(length);
    const std::span<char> whole(*text);
    return area.offset <= volume.size && volume.read(area.offset + copy.offset, whole.first(before_end)) &&
           volume.read(area.offset + sector_bytes, whole.subspan(before_end));
}

bool read_area(const volume_t& volume, const area_t& area, std::string* name) {
    sector_t sector;
    if (!volume.read(area.offset, sector))
        return false;
    const area_header_t header = *record_at<area_header_t>(sector, 0);
    const text_copy_t copy = header.copy;
    if (std::string_view(header.magic, sizeof header.magic) != area_magic || copy.size == 0 ||
        (copy.flags & copy_ignored) != 0)
        return false;
    std::string text;
    return read_text_start(volume, area, copy, &text) && parse_group_name(text, name);
}

}  // namespace

bool lvm_read_group_name(int fd, std::uint64_t offset, std::uint64_t size, std::string* name) {
    const volume_t volume{fd, offset, size};
    sector_t sector;
    label_t label;
    if (!find_label(volume, &sector, &label))
        return false;
    const std::vector<area_t> areas = metadata_areas(sector, label.content_offset);
    return std::ranges::any_of(areas, [&](const area_t& area) { return read_area(volume, area, name); });
}

}  // namespace mirador
