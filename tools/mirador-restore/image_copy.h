// SPDX-License-Identifier: Apache-2.0
// Copying a part of one file to a place in another, which is a hole there: the kernel copies, or shares the blocks
// where the file system can; holes stay holes.
#pragma once

#include <cstdint>
#include <string>

#include "lib/errdesc.h"

namespace mirador {

// A file that is read or written; the path is for texts.
struct copy_file_t {
    int fd;
    const std::string& path;
};

// Copies `length` bytes, all offsets in bytes. Errors: errno with the path of the file that failed; EIO "<path> ends at
// byte %jd" when the source is shorter.
[[nodiscard]] errdesc_t* copy_range(const copy_file_t& from, std::int64_t from_offset, std::int64_t length,
                                    const copy_file_t& to, std::int64_t to_offset);

}  // namespace mirador
