// SPDX-License-Identifier: Apache-2.0
// Changed-block companions of disks: beside "disk-flat.vmdk" (or "disk-rdm.vmdk") stands "disk-corcbt.vmdk", which
// holds only the blocks that changed since the last backup.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "lib/errdesc.h"

namespace mirador {

#pragma pack(push, 1)

// The head of a changed-block file, little-endian. Behind it stand the list of changed ranges and, back to back, their
// data. Offsets and sizes are in bytes of this file, but for `flat_file_size`.
struct cbt_file_header_t {
    static constexpr std::uint32_t magic_value = 0xcbcb1111;

    std::uint32_t magic_header;
    std::uint32_t version;
    std::int64_t block_list_offset;
    std::int64_t block_data_offset;  // the list ends here
    std::int64_t total_change_size;  // of all changed data; 0: there is no list
    std::int64_t corcbt_file_size;
    std::int64_t flat_file_size;  // of the disk that the changes apply to
    char changeid[64];            // terminated
    char device[256];             // terminated; of the device or disk
    std::uint32_t magic_block_list;
};
static_assert(sizeof(cbt_file_header_t) == 372);
static_assert(offsetof(cbt_file_header_t, magic_header) == 0 && offsetof(cbt_file_header_t, version) == 4);
static_assert(offsetof(cbt_file_header_t, block_list_offset) == 8);
static_assert(offsetof(cbt_file_header_t, block_data_offset) == 16);
static_assert(offsetof(cbt_file_header_t, total_change_size) == 24);
static_assert(offsetof(cbt_file_header_t, corcbt_file_size) == 32);
static_assert(offsetof(cbt_file_header_t, flat_file_size) == 40 && offsetof(cbt_file_header_t, changeid) == 48);
static_assert(offsetof(cbt_file_header_t, device) == 112 && offsetof(cbt_file_header_t, magic_block_list) == 368);

// A changed range of the disk, as the list in the file holds it. Both numbers are in bytes.
struct cbt_extent_data_t {
    static constexpr std::uint32_t ordinary_magic = 0xcbcb4444;
    static constexpr std::uint32_t last_magic = 0xcbcb5555;

    std::uint32_t magic;
    std::int64_t start;
    std::int64_t length;
};
static_assert(sizeof(cbt_extent_data_t) == 20 && offsetof(cbt_extent_data_t, magic) == 0);
static_assert(offsetof(cbt_extent_data_t, start) == 4 && offsetof(cbt_extent_data_t, length) == 12);

#pragma pack(pop)

// The changed ranges in the order of their data. The magic words matter in a file only.
using cbt_extent_list_t = std::vector<cbt_extent_data_t>;

inline void cbt_list_free(cbt_extent_list_t* list) {
    *list = {};
}

// Whether ranges that came from outside can be mapped: each holds at least one sector and whole sectors only, lies
// within a disk of `disk_size` bytes, and begins at or behind the end of the one before. Error: EINVAL with a text that
// tells the first range that is none, and why.
[[nodiscard]] errdesc_t* cbt_check_extents(const cbt_extent_list_t& list, std::int64_t disk_size);

// What offsets, lengths and sizes are multiples of wherever blocks are mapped, in bytes.
inline constexpr std::int64_t cbt_sector_size = 512;

// A companion's size in percent of its disk where the controller has no record of it.
inline constexpr std::uint32_t corcbt_default_size_percent = 5;

// The path of the companion of the flat disk `flat_path`. Error: ERR_INVALID_ARG (1009) "Invalid flat vmdk path" for
// a name that does not end as a flat disk's.
[[nodiscard]] errdesc_t* flat_to_corcbt(const std::string& flat_path, std::string* corcbt_path);

// How large the companion `corcbt_path` of a VM is to appear, in percent of its disk (1 to 100), as the controller's
// first record for the VM's disk of that name tells. Asks the controller, so it blocks. Errors: the controller's, and
// then *percent is untouched.
[[nodiscard]] errdesc_t* get_corcbt_size_percent(const std::string& vm_uuid, const std::string& corcbt_path,
                                                 std::uint32_t* percent);

}  // namespace mirador
