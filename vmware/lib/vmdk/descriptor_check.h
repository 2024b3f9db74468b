// SPDX-License-Identifier: Apache-2.0
// What is asked of a descriptor before the disk is opened. Descriptors lie on datastores, where others write; the
// functions that open and map a disk assert on what they take for granted, so whatever comes from a datastore passes
// here first, and a descriptor that fails is an error of this one disk.
#pragma once

#include <cstdint>
#include <string>

#include "lib/errdesc.h"
#include "vmware/lib/vmdk/vmdkdesc.h"

namespace mirador {

enum class descriptor_role_t : std::uint8_t {
    head,      // the disk itself
    ancestor,  // a parent in its chain: may not be a raw device mapping
};

// Reads the descriptor `path` into *vmdkdesc (as vmdk_parse_file_contents leaves it), notes `on_datastore` and looks at
// all it says. After success vmdk_parse_file_contents does not assert on the same file.
// Errors: those of vmdk_parse_file_contents, so that EAGAIN tells a text that may be half written; EINVAL with a text
// that names fault and file: not a regular file, text too long; no extents, more than 1024, an extent line that cannot
// be read; a name too long, an extent without size or of a type that cannot be mapped; a disk whose size in bytes
// exceeds 63 bits.
// *vmdkdesc is the caller's to free in every case. Asserted: vmdkdesc is not null.
[[nodiscard]] errdesc_t* vmdk_check_descriptor(const std::string& path, descriptor_role_t role, vmdkdesc_t* vmdkdesc);

}  // namespace mirador
