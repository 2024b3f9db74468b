// SPDX-License-Identifier: Apache-2.0
// What the two ways of printing an extent share. The extent is the only one of a disk's record; its file is open and
// its header has been read and carries the magic word of its kind.
#pragma once

#include <cstdio>

#include "lib/errdesc.h"
#include "vmware/lib/vmdk/vmdkdesc.h"

namespace mirador {

// Checks the header and reads the grain directory; with `grains` looks besides whether its tables fit the file. Errors:
// those of vmdk_check_extent and vmdk_open_graindir; EINVAL "grain tables overlap: <path>".
[[nodiscard]] errdesc_t* inspect_open_directory(vmdkdesc_t* disk, bool grains);

// Prints the extent as one JSON object; the tables as they are read, so that memory does not grow with the disk. An
// error on the way is its member "fault" and is returned as well.
[[nodiscard]] errdesc_t* inspect_extent_json(vmdkdesc_t* disk, bool grains, std::FILE* out);

}  // namespace mirador
