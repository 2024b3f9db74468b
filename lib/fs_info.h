// SPDX-License-Identifier: Apache-2.0
// What the program knows about file systems.
#pragma once

#include <cstdint>
#include <string_view>

namespace mirador {

// The inode number of an exported path: a 32-bit hash of it (h = h * 33 xor byte, bytes signed, from 5381).
std::uint32_t fs_ino_hash(std::string_view text);

}  // namespace mirador
