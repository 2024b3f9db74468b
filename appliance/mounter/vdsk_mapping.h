// SPDX-License-Identifier: Apache-2.0
// A disk's table as device-mapper devices: one, or, for a table that is too long for that, a device whose few lines
// join others, "<name>-0", "<name>-1" and so on, each with a part of the table. Who reads the disk sees nothing of
// them.
#pragma once

#include <cstdint>
#include <string>

#include "appliance/mounter/vdsk.h"
#include "lib/errdesc.h"

namespace mirador {

// Lines that one device may have. dmsetup hands a table over in one piece of memory of at most 50,000,000 bytes and
// takes up to 90 for a line that maps onto a loop device; kernels take 1,048,576 lines. Tests lower it before any
// thread runs.
inline std::uint64_t vdsk_mapping_lines = 500'000;

// The place of a table while it is written and loaded. Files of this kind are removed when the daemon starts after a
// crash.
std::string vdsk_table_path(const std::string& name);

// Loads the table file, of vdskdesc->stats.lines lines, as the device `name`, and stores the device's path. Whatever
// is, or may be, loaded is noted in `dm_name` and `dm_pieces`, also on an error, and is the caller's to remove. Errors:
// those of define_devmap_device; errno with the path for a file that cannot be read or written.
[[nodiscard]] errdesc_t* vdsk_load_mapping(const std::string& name, const std::string& table_path,
                                           vdskdesc_t* vdskdesc);

// Removes what is loaded, the newest first, by force where it is in use. A failure is logged at level 3 and the rest is
// removed all the same.
void vdsk_remove_mapping(vdskdesc_t* vdskdesc);

}  // namespace mirador
