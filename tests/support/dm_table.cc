// SPDX-License-Identifier: Apache-2.0
#include "tests/support/dm_table.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <sstream>

#include "lib/file_io.h"

namespace mirador {
namespace {

constexpr std::uint64_t sector_bytes = 512;
constexpr std::size_t chunk_bytes = std::size_t{1} << 16;

bool parse_line(const std::string& text, dm_line_t* line) {
    std::istringstream in(text);
    std::string kind;
    std::string rest;
    if (!(in >> line->start >> line->length >> kind))
        return false;
    if (kind == "linear" && !(in >> line->device >> line->offset))
        return false;
    return (kind == "linear" || kind == "zero") && !(in >> rest);
}

// The next place from `at` on that holds data; `end` when there is none. A file that knows no holes is all data.
std::uint64_t next_data(int fd, std::uint64_t at, std::uint64_t end) {
    const off_t data = lseek(fd, static_cast<off_t>(at), SEEK_DATA);
    if (data < 0)
        return errno == ENXIO ? end : at;
    return std::min(static_cast<std::uint64_t>(data), end);
}

bool is_long_enough(int fd, std::uint64_t end) {
    const off_t size = lseek(fd, 0, SEEK_END);
    return size >= 0 && static_cast<std::uint64_t>(size) >= end;
}

// Copies one line's bytes. Holes are not read: the disks of the tests are mostly holes.
bool copy_line(const dm_line_t& line, int from, int to) {
    static std::vector<char> chunk(chunk_bytes);
    const std::uint64_t end = (line.offset + line.length) * sector_bytes;
    const std::uint64_t shift = (line.start - line.offset) * sector_bytes;  // modulo 2^64
    if (!is_long_enough(from, end))
        return false;
    for (std::uint64_t at = next_data(from, line.offset * sector_bytes, end); at < end; at = next_data(from, at, end)) {
        const auto piece = static_cast<ssize_t>(std::min<std::uint64_t>(end - at, chunk.size()));
        const auto size = static_cast<std::size_t>(piece);
        if (pread(from, chunk.data(), size, static_cast<off_t>(at)) != piece ||
            pwrite(to, chunk.data(), size, static_cast<off_t>(at + shift)) != piece)
            return false;
        at += size;
    }
    return true;
}

}  // namespace

bool parse_dm_table(const std::string& text, std::vector<dm_line_t>* table, std::string* fault) {
    std::istringstream in(text);
    std::uint64_t expected = 0;
    for (std::string line; std::getline(in, line);) {
        *fault = line;
        dm_line_t parsed;
        if (!parse_line(line, &parsed) || parsed.length == 0 || parsed.start != expected)
            return false;
        expected += parsed.length;
        table->push_back(parsed);
    }
    return text.empty() || text.ends_with('\n');
}

bool read_dm_table(const std::vector<dm_line_t>& table, const std::string& path, std::string* fault) {
    const unique_fd to(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    std::map<std::string, unique_fd> devices;
    std::uint64_t end = 0;
    for (const dm_line_t& line : table) {
        end = line.start + line.length;
        if (line.device.empty())
            continue;
        unique_fd& from = devices[line.device];
        if (!from)
            from.reset(open(line.device.c_str(), O_RDONLY | O_CLOEXEC));
        if (!copy_line(line, from.get(), to.get())) {
            *fault = line.device + " is too short";
            return false;
        }
    }
    return ftruncate(to.get(), static_cast<off_t>(end * sector_bytes)) == 0;
}

}  // namespace mirador
