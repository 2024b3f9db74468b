// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/snapshot_frozen.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>

#include "appliance/exporter/vm_state.h"
#include "lib/clock.h"
#include "vmware/lib/vmdk/datastore_path.h"
#include "vmware/lib/vmdk/vmdk_open.h"
#include "vmware/lib/vmsd/vmsd.h"
#include "vmware/lib/vmx/vmx_scan.h"

namespace mirador {
namespace {

constexpr std::time_t look_interval = 5;  // seconds
constexpr int absence = 10;  // seconds without the snapshot; a host that writes the database anew needs less

using snapshots_t = std::vector<vmsdsnapshot_t>;

snapshot_number_t number_of(const vmsdsnapshot_t& snapshot) {
    return {snapshot.uid, snapshot.createtimehigh, snapshot.createtimelow};
}

// The snapshots that the database lists.
errdesc_t* read_database(const std::string& database, snapshots_t* snapshots) {
    vmsddesc_t vmsd;
    RETURN_IF_ERROR(vmsd_open(database, &vmsd));
    std::erase_if(vmsd.snapshot, [](const auto& one) { return one.magic != vmsdsnapshot_t::magic_value; });
    *snapshots = std::move(vmsd.snapshot);
    return nullptr;
}

// The one among them that is this snapshot; *own is empty while there is none.
errdesc_t* look_for(snapshot_state_t* state, std::optional<vmsdsnapshot_t>* own) {
    snapshots_t snapshots;
    errdesc_t* e = read_database(state->database, &snapshots);
    const auto found = std::ranges::find(snapshots, *state->number, number_of);
    const bool is_there = found != snapshots.end();
    *own = is_there ? std::optional(std::move(*found)) : std::nullopt;
    state->is_missing = e == nullptr && !is_there;
    return e;
}

// The same, but waits for a snapshot that is missing: while a host writes the database anew, it may be empty for a
// moment. One that does not come back is lost.
errdesc_t* find_own(snapshot_state_t* state, std::optional<vmsdsnapshot_t>* own) {
    RETURN_IF_ERROR(look_for(state, own));
    for (int waited = 0; !*own && waited < absence; waited++) {
        clock_sleep(1);
        RETURN_IF_ERROR(look_for(state, own));
    }
    if (!*own && !state->is_lost.exchange(true))
        _errdesc_log(snapshot_no_longer_there(*state), ERRDESC_ERROR);
    return nullptr;
}

// Whether the database's name for a disk leads to `vmdk_path`. One that leads nowhere from here, as it may be the
// host's own name for another datastore, is held against its last component alone.
bool leads_to(const std::string& name, const std::string& database, const std::string& vmdk_path) {
    const errdesc_keeper_t keeper;
    std::error_code failed;
    std::string path;
    if (get_preferred_datastore_path(vmdk_get_path(name, vmdk_get_dir(database)), &path) == nullptr &&
        std::filesystem::exists(path, failed))
        return std::filesystem::equivalent(path, vmdk_path, failed) || failed;
    return std::filesystem::path(name).filename() == std::filesystem::path(vmdk_path).filename();
}

// Whether the snapshot froze the disk, or its record does not tell of every disk by a name that can be compared.
bool may_have_frozen(const vmsdsnapshot_t& snapshot, const std::string& database, const std::string& vmdk_path) {
    const auto is_it = [&](const vmsddisk_t& disk) {
        const std::string name = vmx_unescape(disk.filename.value_or(""));
        const bool is_plain = std::ranges::all_of(name, [](char c) { return static_cast<unsigned char>(c) < 0x80; });
        return name.empty() || !is_plain || leads_to(name, database, vmdk_path);
    };
    return snapshot.disk.empty() || std::ranges::any_of(snapshot.disk, is_it);
}

// Whether this reader is the one to look. No other does until it is back, however long its datastore hangs.
bool claims_look(snapshot_state_t* state) {
    const std::time_t now = clock_now();
    const std::time_t due = state->next_look;
    const bool is_early = now < due && due - now <= look_interval;  // the clock may have been set back
    return !is_early && !state->is_looked_for.exchange(true);
}

void look(snapshot_state_t* state) {
    const errdesc_keeper_t keeper;
    std::optional<vmsdsnapshot_t> own;
    (void)find_own(state, &own);  // nothing is known while the database cannot be read
    state->next_look = clock_now() + look_interval;
    state->is_looked_for = false;
}

// Who reads while the snapshot is missing waits for what comes out.
void wait_while_missing(const snapshot_state_t& state) {
    for (int waited = 0; state.is_missing && !state.is_lost && waited < absence; waited++)
        clock_sleep(1);
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

std::optional<snapshot_number_t> snapshot_number_in(const std::string& database, const std::string& snapshot_name) {
    const errdesc_keeper_t keeper;
    snapshots_t snapshots;
    if (database.empty() || read_database(database, &snapshots) != nullptr)
        return std::nullopt;
    std::erase_if(snapshots, [&](const vmsdsnapshot_t& one) {
        return vmx_unescape(one.displayname.value_or("")) != snapshot_name;
    });
    const auto newest = std::ranges::max_element(snapshots, {}, &vmsdsnapshot_t::uid);
    return newest == snapshots.end() ? std::nullopt : std::optional(number_of(*newest));
}

errdesc_t* snapshot_check_frozen(snapshot_state_t* state, const std::string& vmdk_path) {
    std::optional<vmsdsnapshot_t> own;
    if (!state->number)
        return nullptr;
    if (errdesc_t* e = find_own(state, &own)) {
        if (e->number == EMFILE || e->number == ENFILE || e->number == ENOMEM)
            return e;
        _errdesc_log(e, ERRDESC_WARNING);
        return nullptr;
    }
    if (!own)
        return snapshot_no_longer_there(*state);
    if (may_have_frozen(*own, state->database, vmdk_path))
        return nullptr;
    return errdesc_set_fmt(EAGAIN, "%s: not frozen by the snapshot '%s'", vmdk_path.c_str(),
                           state->snapshotname.c_str());
}

errdesc_t* snapshot_check_not_lost(snapshot_state_t* state) {
    if (state->number && !state->is_lost) {
        if (claims_look(state))
            look(state);
        else
            wait_while_missing(*state);
    }
    return state->is_lost ? snapshot_no_longer_there(*state) : nullptr;
}

errdesc_t* snapshot_no_longer_there(const snapshot_state_t& state) {
    return errdesc_set_fmt(ESTALE, "Snapshot '%s' of %s is no longer there", state.snapshotname.c_str(),
                           state.vmname.c_str());
}

}  // namespace mirador
