// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/snapshot_frozen.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <vector>

#include "appliance/exporter/vm_state.h"
#include "vmware/lib/vmsd/vmsd.h"

namespace mirador {
namespace {

std::string file_name(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

// The file names of the disks that the snapshots of a name froze; none when that is not to be had.
std::vector<std::string> frozen_files(const std::string& database, const std::string& snapshot_name) {
    const errdesc_keeper_t keeper;
    std::vector<std::string> files;
    vmsddesc_t vmsd;
    if (vmsd_open(database, &vmsd) != nullptr)
        return files;
    for (const vmsdsnapshot_t& snapshot : vmsd.snapshot)
        if (snapshot.displayname == snapshot_name)
            for (const vmsddisk_t& disk : snapshot.disk)
                if (disk.filename)
                    files.push_back(file_name(*disk.filename));
    return files;
}

}  // namespace

std::string snapshot_database_of(const std::string& vm_shadow_path) {
    const vm_state_ref_t state = vm_state_get(vm_shadow_path);
    if (!state)
        return "";
    vm_state_t& vm = *state;
    const mutex_lock_t lock(vm.mutex);
    return std::filesystem::path(vm.paths.vmx_ds_path).replace_extension(".vmsd");
}

errdesc_t* snapshot_check_frozen(const std::string& database, const std::string& snapshot_name,
                                 const std::string& vmdk_path) {
    const std::vector<std::string> files = frozen_files(database, snapshot_name);
    if (files.empty() || std::ranges::find(files, file_name(vmdk_path)) != files.end())
        return nullptr;
    return errdesc_set_fmt(EAGAIN, "%s: not frozen by the snapshot '%s'", vmdk_path.c_str(), snapshot_name.c_str());
}

}  // namespace mirador
