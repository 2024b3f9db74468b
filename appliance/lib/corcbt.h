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
    static constexpr std::uint32_t current_version = 1;
    static constexpr std::uint32_t list_magic_value = 0xcbcb3333;

    std::uint32_t magic_header;
    std::uint32_t version;
    std::int64_t block_list_offset;
    std::int64_t block_data_offset;  // the list, filled up to whole sectors, ends here
    std::int64_t total_change_size;  // of all changed data; 0: there is no list
    std::int64_t corcbt_file_size;
    std::int64_t flat_file_size;  // of the disk with the changes; what it was before may be smaller
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

// What offsets, lengths and sizes are multiples of wherever blocks are mapped, in bytes.
inline constexpr std::int64_t cbt_sector_size = 512;

// A file with more extents than these is refused: no device could map them.
inline constexpr std::int64_t cbt_max_extents = std::int64_t{1} << 24;

// Whether ranges that came from outside can be mapped: each holds at least one sector and whole sectors only, lies
// within a disk of `disk_size` bytes, and begins at or behind the end of the one before. Error: EINVAL with a text that
// tells the first range that is none, and why.
[[nodiscard]] errdesc_t* cbt_check_extents(const cbt_extent_list_t& list, std::int64_t disk_size);

// Makes the beginning of a changed-block file: header and list, filled up with zeros to whole sectors. The data of the
// extents, in their order, belong behind it. Magic words in `list` are ignored, an empty list is fine. Errors: those of
// cbt_check_extents; EINVAL for a size that is no whole number of sectors, for a change id of 64 bytes or more, a
// device of 256 or more, or too many extents.
[[nodiscard]] errdesc_t* build_corcbt_header(const cbt_extent_list_t& list, const std::string& changeid,
                                             const std::string& device, std::int64_t flat_file_size,
                                             cbt_file_header_t* header, std::string* bytes);

// Reads header and list of the file `path`, which may be a block device too. The list of a file without changed data is
// empty. Where both came from outside, check_corcbt tells whether they can be mapped. Errors: errno with the path;
// EINVAL "invalid corcbt header magic number", "invalid corcbt header: <what>" for a list that does not fit into the
// file or a text without end, "invalid corcbt changed block list" for one without a last record (*list then holds the
// records before the fault).
[[nodiscard]] errdesc_t* read_corcbt_header(const std::string& path, cbt_file_header_t* header,
                                            cbt_extent_list_t* list);

// The same for an open file; `path` is for texts only.
[[nodiscard]] errdesc_t* read_corcbt_header_fd(int fd, const std::string& path, cbt_file_header_t* header,
                                               cbt_extent_list_t* list);

inline void free_cbt_header(cbt_file_header_t* header) {
    *header = {};
}

// Whether what was read from a file of `file_size` bytes can be laid over a disk: the extents as cbt_check_extents
// wants them, their data whole, in the file and where the header tells. Errors: EINVAL with the fault.
[[nodiscard]] errdesc_t* check_corcbt(const cbt_file_header_t& header, const cbt_extent_list_t& list,
                                      std::int64_t file_size);

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

// Whether a changed-block file fits into the `promised` bytes that its companion appears to have; what lies beyond
// would be cut off unseen. Error: EFBIG (27) "Changed blocks need %jd bytes, %jd are exported"; *raised is then the
// percentage to note for the disk, which has been at `percent`: room for the file and a quarter more, 100 at most.
[[nodiscard]] errdesc_t* check_corcbt_size_percent(const cbt_file_header_t& header, std::int64_t promised,
                                                   std::uint32_t percent, std::uint32_t* raised);

}  // namespace mirador
