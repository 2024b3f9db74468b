// SPDX-License-Identifier: Apache-2.0
// The extent files of an open disk. They are opened once and stay open until the disk's mapping is built, so that the
// file that was looked at is the file that is mapped.
#pragma once

#include <cstdint>
#include <string>

#include "lib/errdesc.h"
#include "vmware/lib/vmdk/vmdkdesc.h"

namespace mirador {

// The path of an extent file: "<dirname>/<extentname>" for a relative name.
std::string vmdk_extent_path(const vmdkdesc_t& vmdkdesc, std::uint32_t extent_index);

// Opens one extent file read-only, unless it is open, and notes its size. It neither waits for a pipe nor touches a
// device that the descriptor may not name. An error is printed at level 3: errno with the path; EINVAL, for a
// descriptor on a datastore, when the file is no regular file or lies on no datastore; EINVAL "%s is not a file with
// data" for what is neither a regular file nor a block device.
[[nodiscard]] errdesc_t* vmdk_open_extentfile(vmdkdesc_t* vmdkdesc, std::uint32_t extent_index);

// Opens all extent files in order and then reads the grain directories (vmdk_open_graindir, whose assertions hold). On
// an error all extent files are closed again. Errors: those of vmdk_open_extentfile and vmdk_open_graindir.
[[nodiscard]] errdesc_t* vmdk_open_extentfiles(vmdkdesc_t* vmdkdesc);

// Closes the extent files that are open; headers and grain directories stay.
void vmdk_close_extentfiles(vmdkdesc_t* vmdkdesc);

// Reads the header of an open extent file, unless it has been read: up to 2050 bytes into `hdr`, their number into
// `hdr_size`. Errors: errno with the extent's name.
[[nodiscard]] errdesc_t* vmdk_read_extent_header(extentdesc_t* extent);

}  // namespace mirador
