// SPDX-License-Identifier: Apache-2.0
#include "lib/fs_info.h"

namespace mirador {

std::uint32_t fs_ino_hash(std::string_view text) {
    std::uint32_t hash = 5381;
    for (const char c : text)
        hash = (hash * 33) ^ static_cast<std::uint32_t>(static_cast<signed char>(c));
    return hash;
}

}  // namespace mirador
