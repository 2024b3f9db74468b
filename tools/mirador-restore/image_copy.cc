// SPDX-License-Identifier: Apache-2.0
#include "tools/mirador-restore/image_copy.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

#include "lib/file_io.h"

namespace mirador {
namespace {

constexpr std::int64_t buffer_size = std::int64_t{1} << 20;

// What is left to copy.
struct part_t {
    copy_file_t from;
    copy_file_t to;
    std::int64_t from_offset;
    std::int64_t to_offset;
    std::int64_t length;

    void advance(std::int64_t count) {
        from_offset += count;
        to_offset += count;
        length -= count;
    }
};

// Lets the kernel copy as far as it will. Where it fails, the next read or write tells why.
void copy_in_kernel(part_t* part) {
    while (part->length > 0) {
        off64_t from = part->from_offset;
        off64_t to = part->to_offset;
        const ssize_t done =
            copy_file_range(part->from.fd, &from, part->to.fd, &to, static_cast<std::size_t>(part->length), 0);
        if (done == 0 || (done < 0 && errno != EINTR))
            return;
        part->advance(std::max<ssize_t>(done, 0));
    }
}

errdesc_t* copy_by_hand(part_t* part) {
    std::vector<char> buffer(static_cast<std::size_t>(std::min(part->length, buffer_size)));
    while (part->length > 0) {
        const auto wanted = static_cast<std::size_t>(std::min(part->length, buffer_size));
        std::size_t got = 0;
        std::size_t put = 0;
        if (errdesc_t* e = cor_pread(part->from.fd, buffer.data(), wanted, part->from_offset, &got))
            return errdesc_set_str(e->number, part->from.path);
        if (got < wanted)
            return errdesc_set_fmt(EIO, "%s ends at byte %jd", part->from.path.c_str(),
                                   static_cast<std::intmax_t>(part->from_offset + static_cast<std::int64_t>(got)));
        if (errdesc_t* e = cor_pwrite(part->to.fd, buffer.data(), got, part->to_offset, &put))
            return errdesc_set_str(e->number, part->to.path);
        part->advance(static_cast<std::int64_t>(got));
    }
    return nullptr;
}

// Goes on to the next data of the source, or to the part's end. A file that knows no holes is all data.
void skip_hole(part_t* part) {
    const off_t data = lseek(part->from.fd, part->from_offset, SEEK_DATA);
    const bool is_last_hole = data < 0 && errno == ENXIO;
    if (is_last_hole)
        part->advance(part->length);
    else if (data > part->from_offset)
        part->advance(std::min(data - part->from_offset, part->length));
}

// The bytes of data that the rest of the part begins with.
std::int64_t data_length(const part_t& part) {
    const off_t hole = lseek(part.from.fd, part.from_offset, SEEK_HOLE);
    return hole <= part.from_offset ? part.length : std::min(hole - part.from_offset, part.length);
}

errdesc_t* check_length(const part_t& part) {
    const off_t size = lseek(part.from.fd, 0, SEEK_END);
    if (size < 0)
        return errdesc_set_str(errno, part.from.path);
    if (size - part.from_offset >= part.length)
        return nullptr;
    return errdesc_set_fmt(EIO, "%s ends at byte %jd", part.from.path.c_str(), static_cast<std::intmax_t>(size));
}

}  // namespace

errdesc_t* copy_range(const copy_file_t& from, std::int64_t from_offset, std::int64_t length, const copy_file_t& to,
                      std::int64_t to_offset) {
    part_t rest{from, to, from_offset, to_offset, length};
    RETURN_IF_ERROR(check_length(rest));
    for (skip_hole(&rest); rest.length > 0; skip_hole(&rest)) {
        part_t data = rest;
        data.length = data_length(rest);
        rest.advance(data.length);
        copy_in_kernel(&data);
        RETURN_IF_ERROR(copy_by_hand(&data));
    }
    return nullptr;
}

}  // namespace mirador
