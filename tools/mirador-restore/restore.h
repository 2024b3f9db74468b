// SPDX-License-Identifier: Apache-2.0
// mirador-restore: makes the image of a disk as it is now of an image of before and the file of the blocks that have
// changed since. It needs neither root nor device-mapper.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "lib/errdesc.h"

namespace mirador {

struct restore_options_t {
    bool help = false;
    bool force = false;
    std::string flat;
    std::string corcbt;
    std::string image;
};

// Reads a command line without the program's name. False, with the fault in *fault, when it makes no sense.
[[nodiscard]] bool restore_parse_options(const std::vector<std::string>& args, restore_options_t* options,
                                         std::string* fault);

// Makes the image. It has the size that the changed-block file tells: what the disk has grown by is zeros where it has
// not changed. Neither input is touched; after an error there is no image and what was there before is there still.
// Errors, with the path that is at fault: those of read_corcbt_header and check_corcbt; EINVAL when the flat image is
// larger than the disk or smaller than its own virtual disk header tells, or either input is no regular file or is the
// image; EEXIST for an image that is there, without `force`; errno of a failed transfer.
[[nodiscard]] errdesc_t* restore_image(const restore_options_t& options);

// The program. Its exit status is 0; 1 with one line on `err` when there is no image; 2 with a line on `err` for a
// command line that makes no sense.
int restore_main(const std::vector<std::string>& args, std::FILE* out, std::FILE* err);

}  // namespace mirador
