// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/snapshot_frozen.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <optional>

#include "appliance/exporter/vm_state.h"
#include "lib/clock.h"
#include "vmware/lib/vmsd/vmsd.h"
#include "vmware/lib/vmx/vmx_scan.h"

namespace mirador {
namespace {

constexpr std::time_t look_interval = 15;  // seconds
constexpr std::time_t least_absence = 10;

using snapshots_t = std::vector<vmsdsnapshot_t>;

// The snapshots that the database lists; nothing when it cannot be read.
std::optional<snapshots_t> read_database(const std::string& database) {
    const errdesc_keeper_t keeper;
    vmsddesc_t vmsd;
    if (database.empty() || vmsd_open(database, &vmsd) != nullptr)
        return std::nullopt;
    std::erase_if(vmsd.snapshot, [](const auto& one) { return one.magic != vmsdsnapshot_t::magic_value; });
    return std::move(vmsd.snapshot);
}

// Those among them that are this snapshot.
std::optional<snapshots_t> find_own(const snapshot_state_t& state) {
    auto snapshots = read_database(state.database);
    if (snapshots)
        std::erase_if(*snapshots,
                      [&](const auto& one) { return std::ranges::find(state.uids, one.uid) == state.uids.end(); });
    return snapshots;
}

// A path's last components, as many as `other` has but two at most.
std::string tail(const std::string& path, const std::string& other) {
    const std::filesystem::path whole(path);
    const bool with_directory = other.find('/') != std::string::npos;
    return with_directory ? whole.parent_path().filename() / whole.filename() : whole.filename();
}

// Whether the snapshot froze the disk, or its record does not tell of every disk by a name that can be compared.
bool may_have_frozen(const vmsdsnapshot_t& snapshot, const std::string& vmdk_path) {
    const auto is_it = [&](const vmsddisk_t& disk) {
        const std::string name = vmx_unescape(disk.filename.value_or(""));
        const bool is_plain = std::ranges::all_of(name, [](char c) { return static_cast<unsigned char>(c) < 0x80; });
        return name.empty() || !is_plain || tail(name, name) == tail(vmdk_path, name);
    };
    return snapshot.disk.empty() || std::ranges::any_of(snapshot.disk, is_it);
}

bool may_have_frozen(const std::optional<snapshots_t>& own, const std::string& vmdk_path) {
    return !own || std::ranges::any_of(*own, [&](const auto& one) { return may_have_frozen(one, vmdk_path); });
}

// Whether this reader is the one to look.
bool claims_look(snapshot_state_t* state, std::time_t now) {
    std::time_t due = state->next_look.load(std::memory_order_relaxed);
    const bool is_early = now < due && due - now <= look_interval;  // the clock may have been set back
    return !is_early && state->next_look.compare_exchange_strong(due, now + look_interval);
}

// The snapshot is lost when two looks some time apart don't find it: while a host writes the database anew, it may be
// empty for a moment.
void look_for(snapshot_state_t* state, std::time_t now) {
    const auto own = find_own(*state);
    const std::time_t since = state->missed_since;
    if (!own || !own->empty()) {
        state->missed_since = 0;
    } else if (since == 0 || since > now) {
        state->missed_since = now;
    } else if (now - since >= least_absence) {
        _errdesc_log(snapshot_no_longer_there(*state), ERRDESC_ERROR);
        state->is_lost = true;
    }
}

}  // namespace

std::string snapshot_database_of(const std::string& vm_shadow_path) {
    const vm_state_ref_t state = vm_state_get(vm_shadow_path);
    if (!state)
        return "";
    vm_state_t& vm = *state;
    vm_paths_t paths;
    {
        const mutex_lock_t lock(vm.mutex);
        paths = vm.paths;
    }
    vm_paths_locate(&paths);
    return std::filesystem::path(paths.vmx_ds_path).replace_extension(".vmsd");
}

std::vector<std::uint64_t> snapshot_uids(const std::string& database, const std::string& snapshot_name) {
    std::vector<std::uint64_t> uids;
    for (const vmsdsnapshot_t& one : read_database(database).value_or(snapshots_t{}))
        if (one.displayname && vmx_unescape(*one.displayname) == snapshot_name)
            uids.push_back(one.uid);
    return uids;
}

errdesc_t* snapshot_check_frozen(const snapshot_state_t& state, const std::string& vmdk_path) {
    constexpr unsigned pause = 1;  // seconds; long enough for a host to write the database anew
    if (state.uids.empty())
        return nullptr;
    auto own = find_own(state);
    if (own && own->empty()) {
        clock_sleep(pause);
        own = find_own(state);
    }
    if (may_have_frozen(own, vmdk_path))
        return nullptr;
    return errdesc_set_fmt(EAGAIN, "%s: not frozen by the snapshot '%s'", vmdk_path.c_str(),
                           state.snapshotname.c_str());
}

errdesc_t* snapshot_check_not_lost(snapshot_state_t* state) {
    if (!state->uids.empty() && !state->is_lost) {
        const std::time_t now = clock_now();
        if (claims_look(state, now))
            look_for(state, now);
    }
    return state->is_lost ? snapshot_no_longer_there(*state) : nullptr;
}

errdesc_t* snapshot_no_longer_there(const snapshot_state_t& state) {
    return errdesc_set_fmt(ESTALE, "Snapshot '%s' of %s is no longer there", state.snapshotname.c_str(),
                           state.vmname.c_str());
}

}  // namespace mirador
