// SPDX-License-Identifier: Apache-2.0
// Device-mapper devices: names, loading a table file, removal. The work is done by the tool that tool_paths() names.
#pragma once

#include <string>

#include "lib/errdesc.h"

namespace mirador {

// A name that begins with `prefix` and that no other call, in this process or another, now or earlier, has got:
// "<prefix>-<process>-<count>-<random>". It is a valid device name and file name.
void dm_mk_unique_name(const std::string& prefix, std::string* name);

// Loads the table file as the device `name` and stores its path, "/dev/mapper/<name>", in *dm_device (also when the
// loading fails). Errors: those of spawn_tool; the tool has 600 seconds.
[[nodiscard]] errdesc_t* define_devmap_device(const std::string& table_path, const std::string& name,
                                              std::string* dm_device);

// Removes the device `name`; with `force` even one that is in use: what is read from it then fails. Errors: those of
// spawn_tool.
[[nodiscard]] errdesc_t* remove_devmap_device(const std::string& name, bool force);

// Removes the device `name`, by force where somebody still reads it: it gives up then what lies under it. Failures are
// logged at level 3.
void release_devmap_device(const std::string& name);

}  // namespace mirador
