// SPDX-License-Identifier: Apache-2.0
// Any bytes as a changed-block file: read, check, map. What the check passes must make a table without a gap that ends
// with the disk and whose every line lies within its device, and must be the same once more when it is built again.
//
// Input: two bytes for the size of the flat image in sectors, then the file.
#include <fcntl.h>

#include <cstring>

#include "appliance/lib/corcbt_table.h"
#include "lib/tool_paths.h"
#include "tests/fuzz/memory_file.h"
#include "tests/support/dm_table.h"

using namespace mirador;

namespace {

constexpr std::size_t parameter_bytes = 2;
constexpr std::int64_t sector = 512;

std::string read_all(const std::string& path) {
    const unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string text(static_cast<std::size_t>(lseek(fd.get(), 0, SEEK_END)), '\0');
    std::size_t done = 0;
    cor_assert(!cor_pread(fd.get(), text.data(), text.size(), 0, &done) && done == text.size());
    return text;
}

// The table's lines, which lie back to back from 0 on; *end in sectors.
std::vector<dm_line_t> lines_of(const table_file_t& table, std::uint64_t* end) {
    std::vector<dm_line_t> lines;
    std::string fault;
    cor_assert(parse_dm_table(read_all(table.path()), &lines, &fault));
    *end = lines.empty() ? 0 : lines.back().start + lines.back().length;
    return lines;
}

void check_merge(const std::vector<dm_line_t>& lines, std::int64_t flat_size, std::int64_t file_size) {
    for (const dm_line_t& line : lines) {
        if (line.device == "flat")
            cor_assert(line.offset == line.start);
        if (!line.device.empty())
            cor_assert((line.offset + line.length) * sector <=
                       static_cast<std::uint64_t>(line.device == "flat" ? flat_size : file_size));
    }
}

void build_again(const cbt_file_header_t& header, const cbt_extent_list_t& list) {
    static memory_file_t file;
    cbt_file_header_t built;
    cbt_file_header_t read;
    cbt_extent_list_t back;
    std::string bytes;
    cor_assert(!build_corcbt_header(list, header.changeid, header.device, header.flat_file_size, &built, &bytes));
    file.fill(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    cor_assert(!read_corcbt_header(file.path(), &read, &back));
    cor_assert(std::memcmp(&built, &read, sizeof built) == 0 && back.size() == list.size());
    cor_assert(!check_corcbt(read, back, read.corcbt_file_size));
    for (std::size_t i = 0; i < list.size(); ++i)
        cor_assert(back[i].start == std::int64_t{list[i].start} && back[i].length == std::int64_t{list[i].length});
}

void map(const std::string& flat, std::int64_t flat_size, const cbt_file_header_t& header,
         const cbt_extent_list_t& list, std::int64_t file_size) {
    std::string name;
    std::unique_ptr<table_file_t> table;
    std::uint64_t end = 0;
    if (!create_devmap_table_merge(flat, "flat", "corcbt", list, header, &name, &table)) {
        check_merge(lines_of(*table, &end), flat_size, file_size);
        cor_assert(end * sector == static_cast<std::uint64_t>(header.flat_file_size));
    } else {
        cor_assert(flat_size > header.flat_file_size);
    }
    cor_assert(!create_devmap_table_import("flat", list, header, &name, &table));
    for (const dm_line_t& line : lines_of(*table, &end))
        cor_assert((line.offset + line.length) * sector <= static_cast<std::uint64_t>(header.flat_file_size));
    cor_assert(end * sector == static_cast<std::uint64_t>(header.total_change_size));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static memory_file_t file;
    static memory_file_t flat;
    if (size < parameter_bytes)
        return 0;
    tool_paths().tmp_dir = "/dev/shm";
    const std::int64_t flat_size = (data[0] | data[1] << 8) * sector;
    const auto file_size = static_cast<std::int64_t>(size - parameter_bytes);
    file.fill(data + parameter_bytes, size - parameter_bytes);
    cor_assert(ftruncate(flat.fd(), flat_size) == 0);
    cbt_file_header_t header{};
    cbt_extent_list_t list;
    if (read_corcbt_header(file.path(), &header, &list) || check_corcbt(header, list, file_size))
        return 0;
    build_again(header, list);
    map(flat.path(), flat_size, header, list, file_size);
    return 0;
}
