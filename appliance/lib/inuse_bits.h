// SPDX-License-Identifier: Apache-2.0
// The bits of an in-use bitmap: one for each sector, the lowest of a byte first, set where the sector is in use.
#pragma once

#include <algorithm>
#include <cstdint>

namespace mirador {

inline constexpr std::int64_t inuse_bits_per_byte = 8;

inline bool inuse_bit(const unsigned char* bitmap, std::int64_t bit) {
    return ((bitmap[bit / inuse_bits_per_byte] >> (bit % inuse_bits_per_byte)) & 1) != 0;
}

// Where the bits that equal the one at `bit` end, at `end` at the latest. No byte from bit `end` on is looked at.
inline std::int64_t inuse_end_of_run(const unsigned char* bitmap, std::int64_t bit, std::int64_t end) {
    const bool state = inuse_bit(bitmap, bit);
    const unsigned char all_equal = state ? 0xff : 0;
    while (bit < end && inuse_bit(bitmap, bit) == state)
        bit +=
            bit % inuse_bits_per_byte == 0 && bitmap[bit / inuse_bits_per_byte] == all_equal ? inuse_bits_per_byte : 1;
    return std::min(bit, end);
}

}  // namespace mirador
