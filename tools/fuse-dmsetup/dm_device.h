// SPDX-License-Identifier: Apache-2.0
// What a table maps onto: block devices, and other mappings.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "lib/errdesc.h"
#include "lib/file_io.h"

namespace mirador {

inline constexpr std::uint64_t sector_size = 512;  // bytes

class dm_table_t;

struct dm_device_t {
    std::string name;  // as the table spells it
    unsigned major = 0;
    unsigned minor = 0;
    std::uint64_t sectors = 0;
    unique_fd fd;  // open for reading as long as a table maps onto it
    // Of a device that is a mapping itself: it is read through its table, and the rest but its size is empty.
    std::shared_ptr<const dm_table_t> table;
};

// Opens the device that a table names, by path or as "major:minor". Errors: errno with the name; ENOTBLK (15) for what
// is no block device.
[[nodiscard]] errdesc_t* dm_device_open(const std::string& name, dm_device_t* device);

// What a table uses to open devices: dm_device_open, or a test's own.
using dm_device_opener_t = std::function<errdesc_t*(const std::string& name, dm_device_t* device)>;

}  // namespace mirador
