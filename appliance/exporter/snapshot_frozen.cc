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

// The snapshots of a name; nothing when the database cannot be read.
std::optional<std::vector<vmsdsnapshot_t>> listed(const std::string& database, const std::string& snapshot_name) {
    const errdesc_keeper_t keeper;
    vmsddesc_t vmsd;
    if (database.empty() || vmsd_open(database, &vmsd) != nullptr)
        return std::nullopt;
    std::erase_if(vmsd.snapshot, [&](const vmsdsnapshot_t& one) { return one.displayname != snapshot_name; });
    return std::move(vmsd.snapshot);
}

bool froze(const vmsdsnapshot_t& snapshot, const std::string& file) {
    return std::ranges::any_of(
        snapshot.disk, [&](const vmsddisk_t& disk) { return disk.filename && file_name(*disk.filename) == file; });
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

std::optional<bool> snapshot_is_listed(const std::string& database, const std::string& snapshot_name) {
    const auto snapshots = listed(database, snapshot_name);
    return snapshots ? std::optional(!snapshots->empty()) : std::nullopt;
}

errdesc_t* snapshot_check_frozen(const snapshot_state_t& state, const std::string& vmdk_path) {
    if (!state.was_listed)
        return nullptr;
    const auto snapshots = listed(state.database, state.snapshotname);
    const std::string file = file_name(vmdk_path);
    if (!snapshots || std::ranges::any_of(*snapshots, [&](const auto& snapshot) { return froze(snapshot, file); }))
        return nullptr;
    return errdesc_set_fmt(EAGAIN, "%s: not frozen by the snapshot '%s'", vmdk_path.c_str(),
                           state.snapshotname.c_str());
}

}  // namespace mirador
