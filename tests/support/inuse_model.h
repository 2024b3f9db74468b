// SPDX-License-Identifier: Apache-2.0
// What a disk shows to an optimised read, told byte by byte from its content and its in-use bitmap.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>

namespace mirador {

struct inuse_model_t {
    static constexpr std::size_t sector = 512;

    std::string device;
    std::string bitmap;  // a bit for each sector, the lowest of a byte first
    char fill = 0;       // what stands in sectors that are not in use

    bool in_use(std::size_t number) const {
        return ((static_cast<unsigned char>(bitmap[number / 8]) >> (number % 8)) & 1) != 0;
    }

    void set(std::size_t number, bool used) {
        const auto bit = static_cast<char>(1 << (number % 8));
        char& byte = bitmap[number / 8];
        byte = static_cast<char>(used ? byte | bit : byte & ~bit);
    }

    std::string read(std::size_t offset, std::size_t size) const {
        std::string data = offset < device.size() ? device.substr(offset, size) : "";
        for (std::size_t at = 0; at < data.size(); at++)
            if (!in_use((offset + at) / sector))
                data[at] = fill;
        return data;
    }

    // The bytes of the sectors of one kind that a range touches.
    std::size_t touched(std::size_t offset, std::size_t size, bool used) const {
        const std::size_t end = std::min(offset + size, device.size());
        std::size_t bytes = 0;
        for (std::size_t number = offset / sector; number * sector < end; number++)
            bytes += in_use(number) == used ? sector : 0;
        return bytes;
    }
};

}  // namespace mirador
