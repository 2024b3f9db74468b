// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/cordev_ahead.h"

#include <fcntl.h>

#include <algorithm>
#include <array>

#include "appliance/lib/inuse_bits.h"

namespace mirador {
namespace {

constexpr off_t sector_size = 512;
constexpr off_t bytes_per_byte = sector_size * inuse_bits_per_byte;  // of the device, for one of the bitmap
constexpr off_t most_at_once = 128 << 10;                            // bytes; of more the kernel may drop the rest

// Has a stretch of the device read into the page cache, without waiting for it.
void fetch(int fd, off_t begin, off_t end) {
    for (off_t at = begin; at < end; at += most_at_once)
        static_cast<void>(posix_fadvise(fd, at, std::min(most_at_once, end - at), POSIX_FADV_WILLNEED));
}

void fetch_window(const cor_dev_desc_t& pdev, off_t begin) {
    std::array<unsigned char, cor_dev_window / bytes_per_byte> bitmap;
    std::size_t done = 0;
    if (cor_pread(pdev.bmap_fd.get(), bitmap.data(), bitmap.size(), begin / bytes_per_byte, &done) != nullptr)
        return;
    const sector_count_t first = begin / sector_size;
    const sector_count_t count = std::min(static_cast<sector_count_t>(done) * inuse_bits_per_byte, pdev.length - first);
    for (sector_count_t bit = 0; bit < count;) {
        const sector_count_t end = inuse_end_of_run(bitmap.data(), bit, count);
        if (inuse_bit(bitmap.data(), bit))
            fetch(pdev.fd.get(), (first + bit) * sector_size, (first + end) * sector_size);
        bit = end;
    }
}

}  // namespace

void cor_dev_no_kernel_ahead(int fd) {
    static_cast<void>(posix_fadvise(fd, 0, 0, POSIX_FADV_RANDOM));
}

void cor_dev_read_ahead(const cor_dev_desc_t& pdev, std::size_t size, off_t offset) {
    const off_t last = offset + static_cast<off_t>(size) - 1;
    const off_t window = last / cor_dev_window * cor_dev_window;
    const off_t next = window + cor_dev_window;
    if (size >= cor_dev_least_going_on && window >= offset && next / sector_size < pdev.length)
        fetch_window(pdev, next);
}

}  // namespace mirador
