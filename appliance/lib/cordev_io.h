// SPDX-License-Identifier: Apache-2.0
// The optimised device reader: reads a disk's block device, but not where the guest's file systems have nothing.
//
// The appliance's storage layer publishes a bitmap for each device, "<tool_paths().inuse_bitmap_dir>/<device's name>":
// one bit for each 512-byte sector, the lowest bit of the first byte for sector 0, set where the sector is in use.
// Sectors whose bit is clear are never read; the fill pattern stands for their bytes.
//
// A reader is shared (cor_dev_ptr) by all who read through it and is closed with its last owner. Any number of threads
// may read through one at a time: nothing in it changes but its counters, which are atomic.
//
// Sectors are of 512 bytes everywhere here.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "lib/errdesc.h"
#include "lib/file_io.h"

namespace mirador {

using sector_count_t = std::int64_t;

// What stands in skipped sectors, as a byte value.
inline std::atomic<int> _unallocated_block_fill_pattern = 0;

struct cor_dev_stats_t {
    std::atomic<std::uint64_t> invocations = 0;   // calls of cor_dev_read
    std::atomic<std::uint64_t> inuse_tests = 0;   // sectors looked up in a bitmap
    std::atomic<std::uint64_t> runs = 0;          // stretches of sectors of one kind
    std::atomic<std::uint64_t> sectors_read = 0;  // from the device
    std::atomic<std::uint64_t> sectors_skipped = 0;
    std::atomic<std::uint64_t> io_bytes = 0;  // of both kinds
};

// Of one request, in sectors.
struct cor_read_stats_t {
    sector_count_t sectors_read = 0;
    sector_count_t sectors_skipped = 0;
};

struct cor_dev_desc_t {
    static constexpr std::uint32_t magic_value = 0x20100415;

    cor_dev_desc_t() = default;
    cor_dev_desc_t(const cor_dev_desc_t&) = delete;
    cor_dev_desc_t& operator=(const cor_dev_desc_t&) = delete;
    ~cor_dev_desc_t();

    std::uint32_t magic = magic_value;
    std::string name;           // the device path's last component with its slash, such as "/dm-3"
    unique_fd fd;               // the device
    unique_fd bmap_fd;          // its bitmap
    sector_count_t length = 0;  // sectors of the device, which the bitmap describes all
    int sector_size = 512;
    std::string extended_error_path;  // whose extended attributes carry the real error; empty: none
    cor_dev_stats_t stats;
};
using cor_dev_ptr = std::shared_ptr<cor_dev_desc_t>;

// Opens a device and its bitmap; with `smartread_lvm_enabled` the device's twin, "<device_path>.dup". Null, with a line
// in the log, when either cannot be opened, the device is not of whole sectors, or the bitmap is no regular file or too
// short for the device: sectors without a bit would be lost to the reader. What a bitmap holds beyond the device is not
// looked at.
cor_dev_ptr cor_dev_open(const std::string& device_path, const std::string& extended_error_path);

// Gives up a reader, *pdevp becomes null. With its last owner its counters are logged and bitmap and device closed; in
// between, up to 10 seconds go by until the storage layer has dropped the device (attribute "dev_ref_count" of the
// bitmap reads 0; one that cannot be read ends the wait).
void cor_dev_close(cor_dev_ptr* pdevp);

// Reads *count sectors from `start_sector` on into `buf`. `bitmap` holds the bits of sectors `bmap_base_sector` (a
// multiple of 8) and following, at least to the last one asked for. *count becomes what there is up to the device's
// end, 0 from there on. Each stretch of sectors in use costs one read of the device. `stats` is added to.
// Error: the device's number, with what is published for the extended error path; EIO, likewise, for a device that ends
// too early.
[[nodiscard]] errdesc_t* cor_dev_read(cor_dev_desc_t& pdev, char* buf, const unsigned char* bitmap,
                                      sector_count_t bmap_base_sector, sector_count_t start_sector,
                                      sector_count_t* count, cor_read_stats_t* stats);

// Reads `size` bytes (more than 0) at `offset` into `buf`: exactly cor_dev_room() of them, the others stay as they
// are. *bytes_read and *bytes_skipped tell of the sectors that it took, each counted whole, so their sum exceeds the
// bytes when the range does not begin and end with a sector; both are 0 from the device's end on. The bits of
// the range are fetched with one read. Errors: EINVAL for a negative offset; EIO for a bitmap that became too short or
// cannot be read; those of cor_dev_read.
[[nodiscard]] errdesc_t* optimize_byte_read(cor_dev_desc_t& pdev, char* buf, std::size_t size, off_t offset,
                                            std::size_t* bytes_read, std::size_t* bytes_skipped);

// How many of `size` bytes at `offset` lie on the device.
std::size_t cor_dev_room(const cor_dev_desc_t& pdev, std::size_t size, off_t offset);

}  // namespace mirador
