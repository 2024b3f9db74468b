// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/cordev_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "appliance/lib/cordev_ahead.h"
#include "appliance/lib/inuse_bits.h"
#include "appliance/lib/registry.h"
#include "lib/alignment_desc.h"
#include "lib/clock.h"
#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/log.h"
#include "lib/tool_paths.h"

namespace mirador {
namespace {

constexpr std::size_t sector_size = 512;
constexpr sector_count_t bits = inuse_bits_per_byte;
constexpr int run_level = 4;  // debug level of a line for each run

// Tells the storage layer that a device is read together with its bitmap; nothing to other file systems.
constexpr int paired_read_flag = 0x10000000;

std::string bitmap_path(const std::string& name) {
    return cor_format_path("%s%s", tool_paths().inuse_bitmap_dir.c_str(), name.c_str());
}

// Does not hang on a FIFO.
unique_fd open_to_read(const std::string& path, int more_flags) {
    unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | more_flags));
    if (!fd)
        ts_printf("cor_dev_open: failed to open %s, errno %d\n", path.c_str(), errno);
    return fd;
}

// How many sectors a device has; 0, with a line in the log, for one that is not of whole sectors.
sector_count_t sectors_of(int fd, const std::string& path) {
    const off_t size = lseek(fd, 0, SEEK_END);
    constexpr auto unit = static_cast<off_t>(sector_size);
    if (size > 0 && size % unit == 0)
        return size / unit;
    ts_printf("cor_dev_open: %s is not of whole sectors (%jd bytes)\n", path.c_str(), static_cast<std::intmax_t>(size));
    return 0;
}

// Whether the bitmap has a bit for every sector.
bool covers(int bmap_fd, const std::string& path, sector_count_t sectors) {
    const off_t needed = (sectors + bits - 1) / bits;
    struct stat st {};
    if (fstat(bmap_fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size >= needed)
        return true;
    ts_printf("cor_dev_open: %s has %jd bytes, the device needs %jd\n", path.c_str(),
              static_cast<std::intmax_t>(st.st_size), static_cast<std::intmax_t>(needed));
    return false;
}

// "dev_ref_count" of a bitmap, a decimal number.
bool read_ref_count(const std::string& path, int* count) {
    std::array<char, 33> text{};
    if (getxattr(path.c_str(), "dev_ref_count", text.data(), text.size() - 1) < 0)
        return false;
    *count = std::atoi(text.data());
    return true;
}

// Waits until the storage layer has let go of the device: what lies under it can only then be taken apart.
void wait_until_dropped(const std::string& path) {
    constexpr int max_waits = 10;
    int count = 0;
    for (int waiting = 0;; waiting++) {
        if (!read_ref_count(path, &count)) {
            ts_printf("WARNING: failed to get device ref count for %s, errno %d (waiting %d)\n", path.c_str(), errno,
                      waiting);
            return;
        }
        if (count == 0)
            return;
        if (waiting == max_waits)
            break;
        clock_sleep(1);
    }
    ts_printf("WARNING: device ref count for %s is not zero (ref_count/waiting %d/%d)\n", path.c_str(), count,
              max_waits);
}

void add(std::atomic<std::uint64_t>* counter, sector_count_t amount) {
    counter->fetch_add(static_cast<std::uint64_t>(amount), std::memory_order_relaxed);
}

std::intmax_t value(const std::atomic<std::uint64_t>& counter) {
    return static_cast<std::intmax_t>(counter.load(std::memory_order_relaxed));
}

errdesc_t* read_device(const cor_dev_desc_t& pdev, char* buf, sector_count_t start, sector_count_t count) {
    ts_dprintf(run_level, "cor_dev_read: in-use start/count/end - %lld %lld %lld\n", static_cast<long long>(start),
               static_cast<long long>(count), static_cast<long long>(start + count));
    const std::size_t size = static_cast<std::size_t>(count) * sector_size;
    std::size_t done = 0;
    errdesc_t* e = cor_pread(pdev.fd.get(), buf, size, start * static_cast<off_t>(sector_size), &done);
    if (e != nullptr)
        return errdesc_set_extended_err(e->number, pdev.extended_error_path);
    return done == size ? nullptr : errdesc_set_extended_err(EIO, pdev.extended_error_path);
}

// One run of sectors of a kind.
errdesc_t* flush_run(cor_dev_desc_t& pdev, char* buf, bool in_use, sector_count_t start, sector_count_t count,
                     cor_read_stats_t* stats) {
    add(&pdev.stats.runs, 1);
    if (in_use) {
        RETURN_IF_ERROR(read_device(pdev, buf, start, count));
        stats->sectors_read += count;
        add(&pdev.stats.sectors_read, count);
    } else {
        std::memset(buf, _unallocated_block_fill_pattern, static_cast<std::size_t>(count) * sector_size);
        stats->sectors_skipped += count;
        add(&pdev.stats.sectors_skipped, count);
    }
    add(&pdev.stats.io_bytes, count * static_cast<sector_count_t>(sector_size));
    return nullptr;
}

// The bits of a request's blocks, from a whole byte on.
struct bitmap_part_t {
    sector_count_t base_sector = 0;
    std::vector<unsigned char> bytes;
};

errdesc_t* read_bitmap(const cor_dev_desc_t& pdev, const alignment_desc_t& blocks, bitmap_part_t* part) {
    const off_t start = alignment_desc_first(blocks) / bits;
    const auto size = static_cast<std::size_t>(alignment_desc_last(blocks) / bits - start + 1);
    part->base_sector = start * bits;
    part->bytes.resize(size);
    std::size_t done = 0;
    const errdesc_t* e = cor_pread(pdev.bmap_fd.get(), part->bytes.data(), size, start, &done);
    if (e == nullptr && done == size)
        return nullptr;
    const int number = e == nullptr ? 0 : e->number;
    const ssize_t got = e == nullptr ? static_cast<ssize_t>(done) : -1;
    return errdesc_set_fmt(
        EIO,
        "optimize_byte_read : pread size %lld bytes, start %lld, inuse_bitmap of %s returned %zd nbytes (errno = %d)\n",
        static_cast<long long>(size), static_cast<long long>(start), pdev.name.c_str(), got, number);
}

errdesc_t* read_block(cor_dev_desc_t& pdev, const bitmap_part_t& bitmap, sector_count_t block, char* buf,
                      cor_read_stats_t* stats) {
    sector_count_t count = 1;
    RETURN_IF_ERROR(cor_dev_read(pdev, buf, bitmap.bytes.data(), bitmap.base_sector, block, &count, stats));
    cor_assert(count == 1);
    return nullptr;
}

errdesc_t* read_blocks(cor_dev_desc_t& pdev, char* buf, alignment_desc_t* blocks, cor_read_stats_t* stats) {
    bitmap_part_t bitmap;
    RETURN_IF_ERROR(read_bitmap(pdev, *blocks, &bitmap));
    if (blocks->head_byte_count > 0) {
        RETURN_IF_ERROR(read_block(pdev, bitmap, blocks->head_blk_addr, blocks->buf.data(), stats));
        std::memcpy(buf, blocks->buf.data() + blocks->head_byte_offset, blocks->head_byte_count);
    }
    char* const body = buf + blocks->head_byte_count;
    sector_count_t count = blocks->body_blk_count;
    if (count > 0)
        RETURN_IF_ERROR(
            cor_dev_read(pdev, body, bitmap.bytes.data(), bitmap.base_sector, blocks->body_blk_addr, &count, stats));
    cor_assert(count == blocks->body_blk_count);
    if (blocks->tail_byte_count > 0) {
        RETURN_IF_ERROR(read_block(pdev, bitmap, blocks->tail_blk_addr, blocks->buf.data(), stats));
        std::memcpy(body + static_cast<std::size_t>(count) * sector_size, blocks->buf.data(), blocks->tail_byte_count);
    }
    return nullptr;
}

void check(const cor_dev_desc_t& pdev) {
    cor_assert(pdev.magic == cor_dev_desc_t::magic_value);
}

}  // namespace

cor_dev_ptr cor_dev_open(const std::string& device_path, const std::string& extended_error_path) {
    const std::size_t slash = device_path.rfind('/');
    cor_assert(slash != std::string::npos);
    const bool lvm = get_reg_settings()->smartread_lvm_enabled;
    const std::string data_path = lvm ? device_path + ".dup" : device_path;
    unique_fd fd = open_to_read(data_path, 0);
    if (!fd)
        return nullptr;
    const sector_count_t length = sectors_of(fd.get(), data_path);
    if (length == 0)
        return nullptr;
    const std::string name = device_path.substr(slash);
    const std::string bitmap = bitmap_path(name);
    unique_fd bmap_fd = open_to_read(bitmap, lvm ? 0 : paired_read_flag);
    if (!bmap_fd || !covers(bmap_fd.get(), bitmap, length))
        return nullptr;
    cor_dev_no_kernel_ahead(fd.get());
    auto pdev = std::make_shared<cor_dev_desc_t>();
    pdev->name = name;
    pdev->fd = std::move(fd);
    pdev->bmap_fd = std::move(bmap_fd);
    pdev->length = length;
    pdev->extended_error_path = extended_error_path;
    return pdev;
}

void cor_dev_close(cor_dev_ptr* pdevp) {
    cor_assert(pdevp != nullptr);
    pdevp->reset();
}

cor_dev_desc_t::~cor_dev_desc_t() {
    if (!fd)
        return;
    ts_printf(
        "PDEV_STATS for %s: %jd invocations, %jd inuse_tests, %jd runs, sectors_read %jd, sectors_skipped %jd, "
        "io_bytes %jd\n",
        name.c_str(), value(stats.invocations), value(stats.inuse_tests), value(stats.runs), value(stats.sectors_read),
        value(stats.sectors_skipped), value(stats.io_bytes));
    bmap_fd.reset();
    wait_until_dropped(bitmap_path(name));
    fd.reset();
    magic = 0;
}

errdesc_t* cor_dev_read(cor_dev_desc_t& pdev, char* buf, const unsigned char* bitmap, sector_count_t bmap_base_sector,
                        sector_count_t start_sector, sector_count_t* count, cor_read_stats_t* stats) {
    check(pdev);
    cor_assert(buf != nullptr);
    cor_assert(bitmap != nullptr);
    cor_assert(count != nullptr);
    cor_assert(stats != nullptr);
    cor_assert(*count > 0);
    add(&pdev.stats.invocations, 1);
    ts_dprintf(run_level, "cor_dev_read: bmap_base_sector = %lld, start_sector = %lld, end_sector = %lld\n",
               static_cast<long long>(bmap_base_sector), static_cast<long long>(start_sector),
               static_cast<long long>(start_sector + *count));
    if (start_sector >= pdev.length) {
        *count = 0;
        return nullptr;
    }
    *count = std::min(*count, pdev.length - start_sector);
    add(&pdev.stats.inuse_tests, *count);
    cor_read_stats_t mine;
    const sector_count_t first_bit = start_sector - bmap_base_sector;
    for (sector_count_t bit = first_bit; bit < first_bit + *count;) {
        const sector_count_t end = inuse_end_of_run(bitmap, bit, first_bit + *count);
        RETURN_IF_ERROR(flush_run(pdev, buf + static_cast<std::size_t>(bit - first_bit) * sector_size,
                                  inuse_bit(bitmap, bit), bmap_base_sector + bit, end - bit, &mine));
        bit = end;
    }
    cor_assert(mine.sectors_read + mine.sectors_skipped == *count);
    stats->sectors_read += mine.sectors_read;
    stats->sectors_skipped += mine.sectors_skipped;
    return nullptr;
}

errdesc_t* optimize_byte_read(cor_dev_desc_t& pdev, char* buf, std::size_t size, off_t offset, std::size_t* bytes_read,
                              std::size_t* bytes_skipped) {
    check(pdev);
    cor_assert(buf != nullptr);
    cor_assert(bytes_read != nullptr);
    cor_assert(bytes_skipped != nullptr);
    cor_assert(size > 0);
    *bytes_read = 0;
    *bytes_skipped = 0;
    if (offset < 0)
        return errdesc_set(EINVAL);
    const std::size_t room = cor_dev_room(pdev, size, offset);
    if (room == 0)
        return nullptr;
    cor_dev_read_ahead(pdev, room, offset);
    alignment_desc_t blocks;
    alignment_desc_get(offset, room, sector_size, &blocks);
    cor_read_stats_t stats;
    RETURN_IF_ERROR(read_blocks(pdev, buf, &blocks, &stats));
    *bytes_read = static_cast<std::size_t>(stats.sectors_read) * sector_size;
    *bytes_skipped = static_cast<std::size_t>(stats.sectors_skipped) * sector_size;
    return nullptr;
}

std::size_t cor_dev_room(const cor_dev_desc_t& pdev, std::size_t size, off_t offset) {
    const off_t end = pdev.length * static_cast<off_t>(sector_size);
    return offset < end ? std::min(size, static_cast<std::size_t>(end - offset)) : 0;
}

}  // namespace mirador
