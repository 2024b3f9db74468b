// SPDX-License-Identifier: Apache-2.0
// Names of disks: their descriptor's and extent's file names, new names where two disks would share one, and copies of
// descriptors under such a name.
#pragma once

#include <cstdint>
#include <string>

#include "lib/errdesc.h"

namespace mirador {

// The file name of the chain's base disk, of the disk `path`: the name by which the disk is known. Errors: the number
// of the fault with "Failed to read vmdkdesc from %s".
[[nodiscard]] errdesc_t* vmdk_get_basename(const std::string& path, std::string* basename);

// The name of the first extent as the descriptor `path` writes it. Errors: as above.
[[nodiscard]] errdesc_t* vmdk_get_extentname(const std::string& path, std::string* extentname);

// Copies the descriptor text `path` to `copy_path`, making the directory and replacing the file name `old_extentname`
// by `new_extentname`, and stores the copy's size in bytes in *size. The copy has the original's access and
// modification times, and nobody sees half of it. Errors: EINVAL when `path` is no plain descriptor text; errno with
// the path; errno with "Cannot make directory %s".
[[nodiscard]] errdesc_t* vmdk_copy_descfiles(const std::string& path, const std::string& copy_path,
                                             const std::string& old_extentname, const std::string& new_extentname,
                                             std::int64_t* size);

// Gives a disk name the next counter: "disk.vmdk" becomes "disk(1).vmdk", "disk(4)-flat.vmdk" "disk(5)-flat.vmdk".
// Errors: EINVAL with the name when it has no ".vmdk" or its counter cannot grow.
[[nodiscard]] errdesc_t* vmdk_rename(std::string* name);

}  // namespace mirador
