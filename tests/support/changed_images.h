// SPDX-License-Identifier: Apache-2.0
// An image of a disk, what of it changed, and the image after that, all made up.
#pragma once

#include <random>
#include <string>

#include "appliance/lib/corcbt.h"

namespace mirador {

struct changed_images_t {
    std::string before;
    std::string now;
    cbt_extent_list_t list;
    cbt_file_header_t header;
    std::string corcbt;  // the changed-block file: header, list and data
};

// A disk of less than `max_sectors` sectors of random bytes, which may have grown by half as many, with any number of
// changes of 1 to 8 sectors at any place; neighbours may touch. Some changed sectors are zeros.
changed_images_t random_changed_images(std::size_t max_sectors, std::mt19937& random);

}  // namespace mirador
