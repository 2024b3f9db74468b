// SPDX-License-Identifier: Apache-2.0
// What the program knows about file systems: the types of volumes, and an inode number for a path.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "lib/errdesc.h"

namespace mirador {

enum vol_type_t { VOL_UNKNOWN = 0, VOL_FILESYS = 1, VOL_UNMOUNTABLE = 2, VOL_LVM = 3 };

enum fs_type_t {
    FS_TYPE_UNKNOWN = 0,
    FS_TYPE_VFAT = 1,
    FS_TYPE_NTFS = 2,
    FS_TYPE_EXT2 = 3,
    FS_TYPE_EXT3 = 4,
    FS_TYPE_EXT4 = 5,
    FS_TYPE_UFS = 6,
    FS_TYPE_LVM2 = 7,
    FS_TYPE_SWAP = 8,
    FS_TYPE_MD = 9,
};

struct fs_type_entry_t {
    fs_type_t fs_type;
    vol_type_t vol_type;
    const char* name;  // as the volume-identification tool gives it
};

// The entry of a type. Asserted: the type is one of the above.
const fs_type_entry_t& fs_type_to_entry(fs_type_t fs_type);

// The first entry, in the order of the types, whose name occurs in `text`; that of FS_TYPE_UNKNOWN when none does.
const fs_type_entry_t& fs_name_to_entry(std::string_view text);

// Asks the system's volume-identification tool what a block device holds. The tool, tool_paths().vol_id or else
// vol_id_fallback, is chosen once per process; asserted: one of them is executable. Its exit status 4 counts as
// success. Errors, logged at level 4: those of starting the tool and of its end (120 seconds at most); both types are
// then 0.
[[nodiscard]] errdesc_t* get_vol_fs_type(const std::string& device, vol_type_t* vol_type, fs_type_t* fs_type);

// The inode number of an exported path: a 32-bit hash of it (h = h * 33 xor byte, bytes signed, from 5381).
std::uint32_t fs_ino_hash(std::string_view text);

}  // namespace mirador
