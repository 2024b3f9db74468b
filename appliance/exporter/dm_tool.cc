// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/dm_tool.h"

#include <filesystem>
#include <fstream>
#include <string>

#include "lib/log.h"
#include "lib/tool_paths.h"

namespace mirador {

bool kernel_has_device_mapper() {
    std::ifstream misc(tool_paths().misc_devices);
    std::string number;
    std::string name;
    while (misc >> number >> name)
        if (name == "device-mapper")
            return true;
    return false;
}

void choose_dmsetup() {
    if (kernel_has_device_mapper())
        return;
    std::error_code failed;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", failed);
    const std::string stand_in = (program.parent_path() / tool_paths().fuse_dmsetup).string();
    ts_printf("The kernel has no device-mapper: %s stands in for %s\n", stand_in.c_str(), tool_paths().dmsetup.c_str());
    tool_paths().dmsetup = stand_in;
}

}  // namespace mirador
