// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/vm_state.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include "appliance/exporter/snapshot_thr.h"
#include "appliance/exporter/vm_alerts.h"
#include "appliance/exporter/vm_proxy_remove.h"
#include "appliance/lib/registry.h"
#include "appliance/lib/shadow_dir.h"
#include "controller/lib/controller.h"
#include "controller/lib/inventory_check.h"
#include "controller/lib/managed_alert.h"
#include "lib/clock.h"
#include "lib/cor_assert.h"
#include "lib/hash_table.h"
#include "lib/log.h"

namespace mirador {
namespace {

constexpr unsigned busy_wait = 1;  // seconds
constexpr unsigned snapshot_poll = 10;

struct vm_state_table_t {
    mutex_t mutex;
    hash_table_t<std::shared_ptr<vm_state_t>> table GUARDED_BY(mutex);
};

vm_state_table_t& vm_state_table() {
    static vm_state_table_t the_table;
    return the_table;
}

enum class found_t { none, retired, here };

// Looks a record up; a retired one is told apart from none.
found_t look_up(const std::string& vm_shadow_path, vm_state_ref_t* state) {
    vm_state_table_t& states = vm_state_table();
    const mutex_lock_t lock(states.mutex);
    const std::shared_ptr<vm_state_t>* handle = table_get_handle(states.table, vm_shadow_path);
    if (handle == nullptr)
        return found_t::none;
    cor_assert((*handle)->magic == vm_state_t::magic_value);
    cor_assert((*handle)->version == vm_state_t::version_value);
    if ((*handle)->release_pending) {
        cor_assert(!table_release_handle(states.table, vm_shadow_path).has_value());
        return found_t::retired;
    }
    *state = vm_state_ref_t(*handle);
    return found_t::here;
}

// The same for who can wait a little until a retired record is gone.
found_t look_up_settled(const std::string& vm_shadow_path, vm_state_ref_t* state) {
    const found_t found = look_up(vm_shadow_path, state);
    if (found != found_t::retired)
        return found;
    clock_sleep(busy_wait);
    return look_up(vm_shadow_path, state);
}

// Ends one use of a record. True, and the use goes on, when it is the last one of a retired record.
bool is_last_use(vm_state_t* state, bool remove_state) {
    vm_state_table_t& states = vm_state_table();
    const mutex_lock_t lock(states.mutex);
    if (remove_state && !state->release_pending) {
        state->release_pending = true;
        cor_assert(!table_release_handle(states.table, state->vm_path).has_value());  // the table's own use
    }
    if (state->release_pending && table_get_refcount(states.table, state->vm_path) == 1)
        return true;
    cor_assert(!table_release_handle(states.table, state->vm_path).has_value());
    return false;
}

ks_vm_config_t config_of(const vm_state_t& vm) {
    const read_lock_t lock(vm.vmc_rwlock);
    return vm.vmc;
}

bool is_vm(const vm_state_t& vm, const ks_string_t& vm_uuid) {
    const read_lock_t lock(vm.vmc_rwlock);
    return vm.vmc.uuid == vm_uuid;
}

// Whether a VM that goes stands at another place: it has moved, or two hypervisors list it.
bool stands_elsewhere(const vm_state_t& vm) {
    const ks_string_t uuid = config_of(vm).uuid;
    return std::ranges::any_of(vm_state_get_keys(), [&](const std::string& key) {
        const vm_state_ref_t other = vm_state_get(key);
        return other && is_vm(*other, uuid);
    });
}

// Takes the VM out of the shadow tree. Its last user calls.
void clean_up(vm_state_t* state) {
    vm_state_t& vm = *state;
    const bool keeps_copies = stands_elsewhere(vm);
    const mutex_lock_t lock(vm.mutex);
    vd_stop_all(&vm.vd_list, keeps_copies);
    errdesc_t* e = nullptr;
    if (!vm.paths.vm_symlink.empty())
        e = shadow_unlink_uuid(vm.paths.vm_symlink, vm.vm_path);
    cor_assert(e == nullptr);
    if (errdesc_t* failure = vm_proxy_remove_tree(vm.vm_path))  // clients may have used all descriptors up
        _errdesc_log(failure, ERRDESC_ERROR);
    if (vm.keeps_alerts)
        return;
    const read_lock_t vmc_lock(vm.vmc_rwlock);
    if (errdesc_t* failure = managed_alert_clear_vm(ks_text(vm.vmc.uuid), get_reg_settings()->names().appliance_uuid))
        _errdesc_log(failure, ERRDESC_WARNING);
}

void release(std::shared_ptr<vm_state_t> state, bool remove_state) {
    if (!is_last_use(state.get(), remove_state))
        return;
    clean_up(state.get());
    vm_state_table_t& states = vm_state_table();
    {
        const mutex_lock_t lock(states.mutex);
        cor_assert(table_release_handle(states.table, state->vm_path).has_value());
    }
    ts_printf("vm_state_release: removed '%s'\n", state->vm_path.c_str());
}

// A VMX file that is called otherwise now, as that of a VM that became a template, leaves its entries behind.
void note_left_entries(vm_state_t* state, const vm_paths_t& paths) REQUIRES(state->mutex) {
    for (const std::string& entry : {state->paths.vmx_shadow_path, state->paths.vm_cfg_path})
        if (!entry.empty() && entry != paths.vmx_shadow_path && entry != paths.vm_cfg_path)
            state->left_entries.push_back(entry);
}

// Replaces what the controller said of the VM, and all paths that follow from it.
errdesc_t* vm_state_copy(vm_state_t* state, const ks_vm_config_t& vmc, ks_vdisk_list_t vdisks, const std::string& root)
    REQUIRES(state->mutex) {
    vm_paths_t paths;
    RETURN_IF_ERROR(vm_paths_make(vmc, root, &paths));
    RETURN_IF_ERROR(shadow_make_dir(paths.vm_path));
    if (!paths.vm_symlink.empty())
        shadow_link_uuid(root, paths.vm_symlink, paths.vm_path);
    note_left_entries(state, paths);
    state->paths = std::move(paths);
    const write_lock_t lock(state->vmc_rwlock);
    state->vmc = vmc;
    state->vmc_vdisk_list = std::move(vdisks);
    return nullptr;
}

errdesc_t* fetch_vdisks(const ks_vm_config_t& vmc, ks_vdisk_list_t* vdisks) {
    record_list_ptr<ks_vdisk_t> list;
    RETURN_IF_ERROR(controller_get_vdisks(vmc.uuid, &list));
    RETURN_IF_ERROR(ks_vdisk_count_check(*list, vmc.vm_name));
    while (std::optional<ks_vdisk_t> vdisk = list_pop(*list))
        vdisks->push_back(std::move(*vdisk));
    return nullptr;
}

errdesc_t* same_name_error(const ks_vm_config_t& vmc, const std::string& stored_hv) {
    return errdesc_set_fmt(EINVAL,
                           "Cannot assign two VMs with the same name (%s) into the same folder (%s): attempted to add "
                           "the VM to the folder that already contains the VM (same name) of %s.",
                           ks_text(vmc.vm_name).c_str(), ks_text(vmc.fldr_name).c_str(), stored_hv.c_str());
}

// Whether another VM has the directory: of another uuid, or the same one registered with two hypervisors, both of which
// list it in this cycle. *stored_hv is the hypervisor of the VM that has it.
bool is_taken(const vm_state_t& state, const ks_vm_config_t& vmc, std::uint64_t gen, std::string* stored_hv) {
    const read_lock_t lock(state.vmc_rwlock);
    *stored_hv = ks_text(state.vmc.hv_hostname);
    return state.vmc.uuid != vmc.uuid || (state.gen == gen && *stored_hv != ks_text(vmc.hv_hostname));
}

// The cycle lists the VM.
void mark_listed(vm_state_t* state, const ks_vm_config_t& vmc, std::uint64_t gen) {
    state->gen = gen;
    if (state->only_kept.exchange(false))
        clear_in_use_alert(vmc, state->vm_path);
}

// Takes a changed record over, under the VM's mutex.
errdesc_t* change(vm_state_t* state, const ks_vm_config_t& vmc, const std::string& root, std::uint64_t gen)
    REQUIRES(state->mutex) {
    ks_vdisk_list_t vdisks;
    RETURN_IF_ERROR(fetch_vdisks(vmc, &vdisks));
    std::string stored_hv;
    if (is_taken(*state, vmc, gen, &stored_hv))
        return same_name_error(vmc, stored_hv);
    RETURN_IF_ERROR(vm_state_copy(state, vmc, std::move(vdisks), root));
    mark_listed(state, vmc, gen);
    state->refresh_now = true;
    return nullptr;
}

bool differs(const vm_state_t& state, const ks_vm_config_t& vmc) {
    const read_lock_t lock(state.vmc_rwlock);
    return ks_vm_config_diff(&state.vmc, &vmc);
}

// A VM whose record another thread holds for long is left for later.
bool take_mutex(vm_state_t* state) TRY_ACQUIRE(true, state->mutex) {
    if (state->mutex.try_lock())
        return true;
    clock_sleep(busy_wait);
    return state->mutex.try_lock();
}

errdesc_t* busy(const std::string& vm_path) {
    return errdesc_set_fmt(ETIMEDOUT, "%s is busy", vm_path.c_str());
}

errdesc_t* update_known(vm_state_t* state, const ks_vm_config_t& vmc, const std::string& root, std::uint64_t gen,
                        bool* updated) {
    if (!differs(*state, vmc)) {
        mark_listed(state, vmc, gen);
        return nullptr;
    }
    if (!take_mutex(state))
        return busy(state->vm_path);
    const mutex_lock_t lock(state->mutex, std::adopt_lock);
    RETURN_IF_ERROR(change(state, vmc, root, gen));
    *updated = true;
    return nullptr;
}

errdesc_t* create(const std::string& vm_path, const ks_vm_config_t& vmc, const ks_hypervisor_config_t& hvc,
                  const std::string& root, std::uint64_t gen) {
    ks_vdisk_list_t vdisks;
    RETURN_IF_ERROR(fetch_vdisks(vmc, &vdisks));
    ts_printf("vm_state_update: discovered %s (hv: %s) with %d disks\n", vm_path.c_str(),
              ks_text(vmc.hv_hostname).c_str(), static_cast<int>(vdisks.size()));
    auto state = std::make_shared<vm_state_t>(vm_path);
    state->hv_type = ks_hypervisor_get_type(ks_text(hvc.hv_type));
    {
        const mutex_lock_t lock(state->mutex);
        RETURN_IF_ERROR(vm_state_copy(state.get(), vmc, std::move(vdisks), root));
    }
    state->gen = gen;
    vm_state_save(std::move(state));
    return nullptr;
}

errdesc_t* update_vm(const ks_vm_config_t& vmc, const ks_hypervisor_config_t& hvc, const std::string& root,
                     std::uint64_t gen, bool* updated) {
    if (ks_text(vmc.datastore_name).empty())
        return errdesc_set_fmt(ENOENT, "Datastore for VM '%s' is not accessible", ks_text(vmc.vm_name).c_str());
    std::string vm_path;
    RETURN_IF_ERROR(vm_path_make(vmc, root, &vm_path));
    vm_state_ref_t state;
    switch (look_up_settled(vm_path, &state)) {
        case found_t::here:
            return update_known(&*state, vmc, root, gen, updated);
        case found_t::retired:
            return busy(vm_path);
        case found_t::none:
            break;
    }
    return create(vm_path, vmc, hvc, root, gen);
}

bool is_only_kept(const std::string& vm_shadow_path) {
    const vm_state_ref_t state = vm_state_get(vm_shadow_path);
    return state && (*state).only_kept;
}

bool is_on(const vm_state_t& vm, const std::string& hv_hostname) {
    const read_lock_t lock(vm.vmc_rwlock);
    return vm.vmc.hv_hostname == hv_hostname;
}

// Where a VM of a hypervisor is listed; `vm_shadow_path` when it is nowhere.
std::string listed_path(const std::string& vm_shadow_path, const std::string& hv_hostname, const std::string& vm_uuid) {
    std::string found = vm_shadow_path;
    vm_state_each(hv_hostname, [&](const vm_state_t& vm) {
        const bool is_found = !vm.only_kept && is_vm(vm, vm_uuid);
        if (is_found)
            found = vm.vm_path;
        return !is_found;
    });
    return found;
}

}  // namespace

vm_state_ref_t::~vm_state_ref_t() {
    if (state_ != nullptr)
        release(std::move(state_), false);
}

void vm_state_release(vm_state_ref_t state, bool remove_state) {
    release(std::exchange(state.state_, nullptr), remove_state);
}

vm_state_ref_t vm_state_get(const std::string& vm_shadow_path) {
    vm_state_ref_t state;
    (void)look_up(vm_shadow_path, &state);
    return state;
}

void vm_state_save(std::shared_ptr<vm_state_t> state) {
    vm_state_table_t& states = vm_state_table();
    const mutex_lock_t lock(states.mutex);
    const std::string key = state->vm_path;
    cor_assert(table_get_refcount(states.table, key) == 0);
    table_new_handle(states.table, key, std::move(state));
}

std::vector<std::string> vm_state_get_keys() {
    vm_state_table_t& states = vm_state_table();
    const mutex_lock_t lock(states.mutex);
    return table_get_keys(states.table);
}

errdesc_t* vm_state_update(const ks_vm_config_t& vmc, const ks_hypervisor_config_t& hvc,
                           const std::string& root_shadow_path, std::uint64_t gen, bool* updated) {
    *updated = false;
    errdesc_t* e = update_vm(vmc, hvc, root_shadow_path, gen, updated);
    if (e != nullptr && e->number != ETIMEDOUT)
        raise_vm_discovery_alert(e, vmc);
    return e;
}

// An update on its way, which may last, is not waited for: its thread is the record's last user then.
void vm_stop_old(std::uint64_t gen, const std::function<bool(const ks_vm_config_t&)>& is_listed) {
    for (const std::string& key : vm_state_get_keys()) {
        vm_state_ref_t state = vm_state_get(key);
        if (!state || (*state).gen == gen)
            continue;
        const ks_vm_config_t vmc = config_of(*state);
        const std::string hv_name = ks_text(vmc.hv_hostname);
        if (snapshot_existed(hv_name, ks_text(vmc.uuid))) {
            (*state).only_kept = true;
            post_in_use_alert(vmc, key);
            continue;
        }
        ts_printf("vm_stop_old: releasing %s (hv_name: %s)\n", key.c_str(), hv_name.c_str());
        (*state).keeps_alerts = is_listed && is_listed(vmc);
        if ((*state).only_kept)
            clear_in_use_alert(vmc, key);
        vm_state_release(std::move(state), true);
    }
}

void vm_state_each(const std::string& hv_hostname, const std::function<bool(vm_state_t&)>& visit) {
    for (const std::string& key : vm_state_get_keys()) {
        const vm_state_ref_t state = vm_state_get(key);
        if (state && is_on(*state, hv_hostname) && !visit(*state))
            return;
    }
}

errdesc_t* vm_count_snapshots(const std::string& vm_shadow_path, int* count) {
    const vm_state_ref_t state = vm_state_get(vm_shadow_path);
    if (!state)
        return errdesc_set_fmt(EINVAL, "Cannot find VM in %s", vm_shadow_path.c_str());
    const vm_state_t& vm = *state;
    const read_lock_t lock(vm.vmc_rwlock);
    *count = std::max(vm.vmc.snap_exists, 0);
    return nullptr;
}

errdesc_t* vm_count_snapshots_anywhere(const std::string& vm_shadow_path, const std::string& hv_hostname,
                                       const std::string& vm_uuid, int* count) {
    return vm_count_snapshots(
        is_only_kept(vm_shadow_path) ? listed_path(vm_shadow_path, hv_hostname, vm_uuid) : vm_shadow_path, count);
}

errdesc_t* vm_wait_snapshot(const std::string& vm_shadow_path, int snapshot_expected, std::time_t timeout,
                            const std::function<bool()>& goes_on) {
    // Counted in what was slept: the clock may be set meanwhile.
    for (std::time_t waited = 0;; waited += snapshot_poll) {
        int found = 0;
        RETURN_IF_ERROR(vm_count_snapshots(vm_shadow_path, &found));
        if (snapshot_expected == 0 ? found == 0 : found >= snapshot_expected)
            return nullptr;
        if (is_only_kept(vm_shadow_path))
            return errdesc_set_fmt(EINVAL, "%s is no longer listed, only found %d snapshots", vm_shadow_path.c_str(),
                                   found);
        if (goes_on && !goes_on())
            return errdesc_set_fmt(ERR_CANCELLED, "The wait for %d snapshots on %s is given up", snapshot_expected,
                                   vm_shadow_path.c_str());
        if (waited >= timeout)
            return errdesc_set_fmt(ETIME, "Cannot find %d snapshots on %s in %jd seconds, only found %d snapshots",
                                   snapshot_expected, vm_shadow_path.c_str(), static_cast<std::intmax_t>(timeout),
                                   found);
        ts_printf("Found %d snapshot on %s, waiting for %d snapshot(s) to be discovered\n", found,
                  vm_shadow_path.c_str(), snapshot_expected);
        clock_sleep(snapshot_poll);
    }
}

}  // namespace mirador
