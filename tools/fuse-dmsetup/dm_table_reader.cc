// SPDX-License-Identifier: Apache-2.0
#include "tools/fuse-dmsetup/dm_table_reader.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <limits>

namespace mirador {
namespace {

constexpr std::size_t portion_size = 1 << 20;  // bytes of text read at once
constexpr std::size_t max_line = 4096;         // longest line: a path and four numbers
// No mapped device ends beyond this, so that its size in bytes fits a file offset.
constexpr std::uint64_t max_sectors = std::numeric_limits<std::int64_t>::max() / sector_size;

// Takes the next word off the front of *text; empty at the end.
std::string_view take_word(std::string_view* text) {
    const std::size_t begin = std::min(text->find_first_not_of(" \t"), text->size());
    const std::size_t end = std::min(text->find_first_of(" \t", begin), text->size());
    const std::string_view word = text->substr(begin, end - begin);
    text->remove_prefix(end);
    return word;
}

bool take_number(std::string_view* text, std::uint64_t* number) {
    const std::string_view word = take_word(text);
    const auto [end, failed] = std::from_chars(word.data(), word.data() + word.size(), *number);
    return failed == std::errc() && !word.empty() && end == word.data() + word.size();
}

}  // namespace

errdesc_t* dm_table_reader_t::wrong(const char* what) const {
    return errdesc_set_fmt(EINVAL, "line %ju: %s", static_cast<std::uintmax_t>(line_), what);
}

errdesc_t* dm_table_reader_t::feed(std::string_view text) {
    for (std::size_t end; (end = text.find('\n')) != text.npos; text.remove_prefix(end + 1)) {
        if (begun_.empty()) {
            RETURN_IF_ERROR(read_line(text.substr(0, end)));
            continue;
        }
        begun_ += text.substr(0, end);
        RETURN_IF_ERROR(read_line(begun_));
        begun_.clear();
    }
    begun_ += text;
    return begun_.size() > max_line ? wrong("too long") : nullptr;
}

errdesc_t* dm_table_reader_t::finish() {
    if (!begun_.empty())
        RETURN_IF_ERROR(read_line(begun_));
    if (table_.targets_.empty())
        return errdesc_set_fmt(EINVAL, "no targets");
    table_.targets_.shrink_to_fit();
    return nullptr;
}

errdesc_t* dm_table_reader_t::read_line(std::string_view line) {
    ++line_;
    const std::size_t first = line.find_first_not_of(" \t");
    if (first == line.npos || line[first] == '#')
        return nullptr;
    std::uint64_t start = 0;
    std::uint64_t length = 0;
    if (line.size() > max_line || !take_number(&line, &start) || !take_number(&line, &length))
        return wrong("start and length expected");
    if (start != table_.sectors_)
        return wrong(start > table_.sectors_ ? "gap before it" : "overlaps the one before it");
    if (length == 0)
        return wrong("empty target");
    if (length > max_sectors - start)
        return wrong("ends beyond the largest device");

    std::uint64_t place = dm_table_t::zero_device;
    const std::string_view kind = take_word(&line);
    if (kind == "linear")
        RETURN_IF_ERROR(read_linear(line, length, &place));
    else if (kind != "zero")
        return wrong("unknown target type");
    else if (!take_word(&line).empty())
        return wrong("a zero target takes no argument");
    table_.targets_.push_back({start, place});
    table_.sectors_ += length;
    return nullptr;
}

errdesc_t* dm_table_reader_t::read_linear(std::string_view words, std::uint64_t length, std::uint64_t* place) {
    const std::string_view name = take_word(&words);
    std::uint64_t offset = 0;
    if (name.empty() || !take_number(&words, &offset) || !take_word(&words).empty())
        return wrong("a linear target takes a device and an offset");
    std::size_t index = 0;
    RETURN_IF_ERROR(find_device(name, &index));
    const std::uint64_t sectors = table_.devices_[index].sectors;
    if (offset > dm_table_t::max_offset || offset >= sectors || length > sectors - offset)
        return wrong("ends beyond its device");
    *place = offset << dm_table_t::device_bits | index;
    return nullptr;
}

errdesc_t* dm_table_reader_t::find_device(std::string_view name, std::size_t* index) {
    auto& devices = table_.devices_;
    if (last_device_ >= devices.size() || devices[last_device_].name != name) {
        const auto known = std::find_if(devices.begin(), devices.end(),
                                        [&](const dm_device_t& device) { return device.name == name; });
        last_device_ = static_cast<std::size_t>(known - devices.begin());
        if (known == devices.end()) {
            if (devices.size() == dm_table_t::zero_device)
                return wrong("too many devices");
            dm_device_t device;
            RETURN_IF_ERROR(opener_(std::string(name), &device));
            devices.push_back(std::move(device));
        }
    }
    *index = last_device_;
    return nullptr;
}

errdesc_t* dm_table_read(int fd, const dm_device_opener_t& opener, dm_table_t* table) {
    dm_table_reader_t reader(opener, table);
    std::vector<char> text(portion_size);
    for (;;) {
        const ssize_t length = read(fd, text.data(), text.size());
        if (length < 0 && errno == EINTR)
            continue;
        if (length < 0)
            return errdesc_set_str(errno, "table");
        if (length == 0)
            return reader.finish();
        RETURN_IF_ERROR(reader.feed({text.data(), static_cast<std::size_t>(length)}));
    }
}

}  // namespace mirador
