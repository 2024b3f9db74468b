// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/vm_update.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <optional>
#include <utility>
#include <vector>

#include "appliance/exporter/controller_thr.h"
#include "appliance/exporter/snapshot_state.h"
#include "appliance/exporter/snapshot_thr.h"
#include "appliance/exporter/vm_alerts.h"
#include "appliance/exporter/vm_cbt_reset.h"
#include "appliance/exporter/vm_proxy_remove.h"
#include "appliance/exporter/vm_proxy_touch.h"
#include "appliance/exporter/vmx_frozen.h"
#include "appliance/exporter/vmx_write_cfg.h"
#include "appliance/lib/registry.h"
#include "appliance/lib/shadow_dir.h"
#include "appliance/lib/shadow_names.h"
#include "lib/clock.h"
#include "lib/error_hash.h"
#include "lib/log.h"
#include "vmware/lib/vmdk/datastore_containment.h"
#include "vmware/lib/vmx/vmx_convert.h"

namespace mirador {
namespace {

constexpr std::time_t retry_interval = 30;  // seconds after a failed update
constexpr int update_level = 1;             // debug levels
constexpr int skip_level = 4;

// One update on its way. The records are copies: what the controller says meanwhile is for the next update.
struct attempt_t {
    ks_vm_config_t vmc;
    ks_vdisk_list_t vdisks;
    vd_update_t update;
    vmx_conversion_t conversions;
    std::vector<std::string> heads;  // where the descriptor of each entry in `conversions` can be read
    bool full = false;
    bool remove_old_disks = true;
    bool cbt_reset_done = true;  // on every disk, where tracking has started anew
    bool may_retry = true;       // a missing file is looked for once more in each update
};

bool is_fresh(const vm_state_t& vm, std::time_t now) {
    const std::time_t interval = vm.failed_attempts == 0 ? get_reg_settings()->cache_ttl.get() : retry_interval;
    return vm.last_update <= now && vm.last_update + interval > now;  // not after the clock was set back
}

std::string client_path(const vm_state_t& vm) {
    return translate_shadow_path(vm.vm_path, cnt_thr_namespaceroot());
}

vd_update_t disk_update(const attempt_t& attempt, const vm_paths_t& paths, std::uint64_t stamp, bool keep_mtime) {
    const ks_vm_config_t& vmc = attempt.vmc;
    return {.gen = stamp,
            .vm_shadow_path = paths.vm_path,
            .vm_uuid = ks_text(vmc.uuid),
            .working_dir = ks_is_set(vmc.snapshot_directory) ? *vmc.snapshot_directory : paths.vm_ds_dir,
            .vm_dir = paths.vm_ds_dir,
            .hv_name = ks_text(vmc.hv_hostname),
            .is_template = vmc.is_template,
            .use_cbt = vmc.use_cbt,
            .cbt_reset_pending = vmc.cbt_reset_pending,
            .cbt_reset_time = vmc.cbt_reset_time,
            .cbt_reset_time_prev = vmc.cbt_reset_time_prev,
            .force = attempt.full,
            .keep_mtime = keep_mtime};
}

// The VM's entries beside its disks.
errdesc_t* touch_entry(const attempt_t& attempt, vm_proxy_header_type_t type, const std::string& shadow_path,
                       const std::string& real_path) {
    const vm_proxy_touch_t touch{.link_path = real_path,
                                 .stat_path = real_path,
                                 .vm_uuid = attempt.update.vm_uuid,
                                 .hv_name = attempt.update.hv_name,
                                 .type = type,
                                 .is_template = attempt.update.is_template,
                                 .keep_mtime = attempt.update.keep_mtime};
    RETURN_IF_ERROR(vm_proxy_touch_check(touch));
    return vm_proxy_touch(shadow_path, touch);
}

bool only_keeps_disks(errnum_t number) {
    return number == EAGAIN || number == EBADFD || number == ENOENT;
}

void add_conversion(attempt_t* attempt, const std::string& disk, const std::string& name, const std::string& head) {
    attempt->conversions.emplace_back(disk, name);
    attempt->heads.push_back(head);
}

errdesc_t* update_exported_disk(vm_state_t* vm, attempt_t* attempt, const ks_vdisk_t& vdisk) REQUIRES(vm->mutex) {
    const vd_state_t* state = nullptr;
    errdesc_t* e = vd_update(&vm->vd_list, vdisk, attempt->update, &state);
    if (e != nullptr && e->number == ENOENT && std::exchange(attempt->may_retry, false))
        e = vd_update(&vm->vd_list, vdisk, attempt->update, &state);
    attempt->cbt_reset_done = attempt->cbt_reset_done && e == nullptr && !state->cbt_reset_failed;
    if (e == nullptr) {
        add_conversion(attempt, state->current_vd_path, state->new_vd_name, state->current_vd_fpath);
        return nullptr;
    }
    if (!only_keeps_disks(e->number))
        return e;
    _errdesc_log(e, ERRDESC_WARNING);
    attempt->remove_old_disks = false;
    if (const vd_state_t* kept = vd_find(&vm->vd_list, vdisk))
        add_conversion(attempt, kept->root_vd_fpath, kept->new_vd_name, kept->root_vd_fpath);
    else
        vd_reserve(vdisk, &attempt->update);
    return nullptr;
}

// Whether the VM has an independent disk of the name, which need not be the only one of it.
bool has_independent(const attempt_t& attempt, const ks_string_t& name) {
    return std::ranges::any_of(attempt.vdisks,
                               [&](const ks_vdisk_t& vdisk) { return vdisk.independent && vdisk.name == name; });
}

errdesc_t* update_disk(vm_state_t* vm, attempt_t* attempt, const ks_vdisk_t& vdisk) REQUIRES(vm->mutex) {
    if (!ks_is_set(vdisk.head_ascii_path))
        return errdesc_set_fmt(ENOENT, "Missing virtual disk head delta information in %s %s",
                               ks_text(attempt->vmc.vm_name).c_str(), ks_text(vdisk.name).c_str());
    if (vdisk.independent || !has_independent(*attempt, vdisk.name))
        post_independent_disk_alert(attempt->vmc, ks_text(vdisk.name), vdisk.independent);
    return vdisk.independent ? nullptr : update_exported_disk(vm, attempt, vdisk);
}

// The alert about a disk that is not exported goes with the disk.
void clear_former_independent(vm_state_t* vm, const attempt_t& attempt) REQUIRES(vm->mutex) {
    std::vector<std::string> names;
    for (const ks_vdisk_t& vdisk : attempt.vdisks)
        if (vdisk.independent)
            names.push_back(ks_text(vdisk.name));
    for (const std::string& name : std::exchange(vm->independent_disks, names))
        if (std::ranges::find(names, name) == names.end())
            post_independent_disk_alert(attempt.vmc, name, false);
}

errdesc_t* update_disks(vm_state_t* vm, attempt_t* attempt) REQUIRES(vm->mutex) {
    clear_former_independent(vm, *attempt);
    if (attempt->vdisks.empty())
        return nullptr;
    vd_touch_gen(attempt->vdisks, &vm->vd_list, attempt->update.gen);
    for (const ks_vdisk_t& vdisk : attempt->vdisks)
        RETURN_IF_ERROR(update_disk(vm, attempt, vdisk));
    return nullptr;
}

errdesc_t* check_conflict(const vm_state_t& vm, const attempt_t& attempt) REQUIRES(vm.mutex) {
    const shadow_owner_t owner{.vm_name = ks_text(attempt.vmc.vm_name),
                               .vm_uuid = ks_text(attempt.vmc.uuid),
                               .group = ks_text(attempt.vmc.fldr_name),
                               .hv_hostname = ks_text(attempt.vmc.hv_hostname)};
    return check_naming_conflict(vm.paths.vmx_shadow_path, owner, vm.paths.vm_symlink);
}

// What was copied must be what was followed: a snapshot that is taken meanwhile has the file name other deltas.
errdesc_t* copy_and_follow(const std::string& vmx, const std::string& copy, attempt_t* attempt) {
    constexpr int most_copies = 3;
    const auto is_datastores = [&vmx](int fd) { return datastore_check_opened(vmx, fd, vmx); };
    vmx_follow_to_frozen(vmx, attempt->heads, &attempt->conversions);
    for (int copies = 1;; ++copies) {
        const vmx_conversion_t used = attempt->conversions;
        RETURN_IF_ERROR(vmx_copy_convert(vmx, copy, used, is_datastores));
        vmx_follow_to_frozen(vmx, attempt->heads, &attempt->conversions);
        if (attempt->conversions == used || copies == most_copies)
            return nullptr;
    }
}

// Without the VMX file the disks are exported all the same.
void copy_vmx(vm_state_t* vm, attempt_t* attempt) REQUIRES(vm->mutex) {
    errdesc_t* e = copy_and_follow(vm->paths.vmx_ds_path, vm->paths.vm_cached_path, attempt);
    vm->vmx_available = e == nullptr;
    if (e == nullptr)
        return;
    error_hash_save(client_path(*vm), e);
    _errdesc_log(e, ERRDESC_WARNING);
}

// Those of former names of the VMX file, once the present one's stand.
void remove_left_entries(vm_state_t* vm) REQUIRES(vm->mutex) {
    if (!vm->vmx_available)
        return;
    for (const std::string& entry : std::exchange(vm->left_entries, {})) {
        if (entry == vm->paths.vmx_shadow_path || entry == vm->paths.vm_cfg_path)
            continue;
        if (errdesc_t* e = vm_proxy_remove(entry))
            _errdesc_log(e, ERRDESC_ERROR);
    }
}

// The steps that count as an attempt.
errdesc_t* write_entries(vm_state_t* vm, attempt_t* attempt) REQUIRES(vm->mutex) {
    if (attempt->full)
        copy_vmx(vm, attempt);
    if (vm->vmx_available)
        RETURN_IF_ERROR(
            touch_entry(*attempt, VM_PROXY_HEADER_VMX, vm->paths.vmx_shadow_path, vm->paths.vm_cached_path));
    if (attempt->remove_old_disks)
        vd_stop_old(&vm->vd_list, attempt->update.gen);
    if (attempt->full)
        RETURN_IF_ERROR(vmx_write_cfg(attempt->vmc, vm->paths, vm->vd_list));
    RETURN_IF_ERROR(touch_entry(*attempt, VM_PROXY_HEADER_CFG, vm->paths.vm_cfg_path, vm->paths.vm_cfg_cached_path));
    remove_left_entries(vm);
    return nullptr;
}

// Records how an attempt ended.
void conclude(vm_state_t* vm_state, const attempt_t& attempt, const errdesc_t* e, std::time_t start) {
    const errdesc_keeper_t keeper;
    vm_state_t& vm = *vm_state;
    if (e == nullptr && attempt.vmc.cbt_reset_pending && attempt.cbt_reset_done)
        clear_cbt_reset_pending(&vm, attempt.vmc);
    raise_vm_discovery_alert(e, attempt.vmc);
    if (e != nullptr)
        error_hash_save(client_path(vm), e);
    const std::time_t now = clock_now();
    ts_dprintf(update_level, "vm_update: refreshed '%s' in %ld seconds %s\n", vm.vm_path.c_str(),
               static_cast<long>(now - start), e == nullptr ? "successful" : "failed");
    vm.last_update = now;
    vm.refresh_now = false;
    if (vm.refresh_again)
        vm.refresh_now = true;
    vm.failed_attempts = e == nullptr ? 0 : vm.failed_attempts + 1;
}

// What the disks that this update keeps are marked with: the time, unless an update of this second has it already.
std::uint64_t next_stamp(vm_state_t* vm, std::time_t now) REQUIRES(vm->mutex) {
    if (vm->last_update == now)
        now++;
    vm->stamp = std::max(now, vm->stamp + 1);
    return static_cast<std::uint64_t>(vm->stamp);
}

attempt_t begin(vm_state_t* vm, std::time_t now, bool full, bool keep_mtime) REQUIRES(vm->mutex) {
    if (full)
        vm->refresh_again = false;
    vm_paths_locate(&vm->paths);
    const read_lock_t lock(vm->vmc_rwlock);
    attempt_t attempt;
    attempt.vmc = vm->vmc;
    attempt.vdisks = vm->vmc_vdisk_list;
    attempt.full = full;
    attempt.cbt_reset_done = !keep_mtime;
    attempt.update = disk_update(attempt, vm->paths, next_stamp(vm, now), keep_mtime);
    return attempt;
}

// A failure counts as no attempt: whoever looks next tries again.
errdesc_t* prepare(vm_state_t* vm, attempt_t* attempt) REQUIRES(vm->mutex) {
    errdesc_t* e = attempt->full ? check_conflict(*vm, *attempt) : nullptr;
    if (e == nullptr)
        e = update_disks(vm, attempt);
    if (e != nullptr)
        raise_vm_discovery_alert(e, attempt->vmc);
    return e;
}

bool has_snapshot(const vm_state_t& vm) {
    const read_lock_t lock(vm.vmc_rwlock);
    return vm.vmc.snap_exists >= 1;
}

// Whether an update made the VM's entries, or an open took its snapshot, before the VM came back as a new one.
bool was_exported(const vm_state_t& vm) REQUIRES(vm.mutex) {
    if (vm.last_update != 0)
        return true;
    std::string hv_name;
    std::string vm_uuid;
    {
        const read_lock_t lock(vm.vmc_rwlock);
        hv_name = ks_text(vm.vmc.hv_hostname);
        vm_uuid = ks_text(vm.vmc.uuid);
    }
    return snapshot_existed(hv_name, vm_uuid);
}

// Whether the VM's entries have been taken out of the tree, with the directory of its hypervisor or while the VM was
// not listed. Without them nobody could go on reading the disks that a snapshot keeps still.
bool has_lost_entries(const vm_state_t& vm) REQUIRES(vm.mutex) {
    return vm.refresh_now && access(vm.paths.vm_cfg_path.c_str(), F_OK) != 0 && was_exported(vm);
}

bool wants_update(const vm_state_t& vm, bool force, std::time_t now) {
    return force || vm.refresh_now || !is_fresh(vm, now);
}

errdesc_t* refresh(vm_state_t* vm, bool force, bool keep_mtime) {
    const mutex_lock_t lock(vm->mutex);
    const std::time_t now = clock_now();
    if (!wants_update(*vm, force, now))  // another thread has made it meanwhile
        return nullptr;
    if (!force && !has_lost_entries(*vm) && (has_snapshot(*vm) || snapshot_state_is_locked(vm->vm_path))) {
        ts_dprintf(skip_level, "%s skipping refresh because of snapshot lock\n", vm->vm_path.c_str());
        return nullptr;
    }
    attempt_t attempt = begin(vm, now, force || vm->refresh_now, keep_mtime);
    if (attempt.full)
        ts_dprintf(update_level, "%s doing full update\n", vm->vm_path.c_str());
    ts_dprintf(update_level, "_vm_update: refreshing '%s'\n", vm->vm_path.c_str());
    RETURN_IF_ERROR(prepare(vm, &attempt));
    errdesc_t* e = write_entries(vm, &attempt);
    conclude(vm, attempt, e, now);
    return e;
}

bool is_current(vm_state_t* vm, const std::string& extent_shadow_path) {
    const mutex_lock_t lock(vm->mutex);
    const read_lock_t vmc_lock(vm->vmc_rwlock);
    return vd_is_current(vm->vmc_vdisk_list, &vm->vd_list, extent_shadow_path);
}

// In this order, so that an update on its way, which sees the entries that are gone by now, does not end the wish.
void want_refresh(vm_state_t* vm) {
    vm->refresh_again = true;
    vm->refresh_now = true;
}

}  // namespace

errdesc_t* _vm_update(vm_state_t* vm_state, bool force, bool keep_mtime) {
    return wants_update(*vm_state, force, clock_now()) ? refresh(vm_state, force, keep_mtime) : nullptr;
}

errdesc_t* vm_update(const std::string& vm_shadow_path, bool force, bool keep_mtime) {
    const vm_state_ref_t state = vm_state_get(vm_shadow_path);
    if (!state)
        return nullptr;
    vm_state_t& vm = *state;
    if (!vm.refresh_now && !force && !get_reg_settings()->ondemand_refresh)
        return nullptr;
    return _vm_update(&vm, force, keep_mtime);
}

errdesc_t* vm_settle_disk(const std::string& extent_shadow_path) {
    const std::string vm_shadow_path = extent_shadow_path.substr(0, extent_shadow_path.rfind('/'));
    const vm_state_ref_t state = vm_state_get(vm_shadow_path);
    if (!state)
        return errdesc_set_fmt(EINVAL, "Cannot find VM in %s", vm_shadow_path.c_str());
    vm_state_t& vm = *state;
    if (is_current(&vm, extent_shadow_path))
        return nullptr;
    RETURN_IF_ERROR(_vm_update(&vm, true, true));
    return is_current(&vm, extent_shadow_path) ? nullptr : errdesc_set_str(EAGAIN, extent_shadow_path);
}

void vm_update_all(const std::string& hv_hostname, const std::function<bool()>& goes_on) {
    vm_state_each(hv_hostname, [&](vm_state_t& vm) {
        if (!goes_on())
            return false;
        if (errdesc_t* e = _vm_update(&vm, false, false))
            _errdesc_log(e, ERRDESC_WARNING);
        return true;
    });
}

void vm_refresh_all(const std::string& hv_hostname) {
    vm_state_each(hv_hostname, [](vm_state_t& vm) {
        want_refresh(&vm);
        return true;
    });
}

void vm_refresh_below(const std::string& shadow_dir) {
    for (const std::string& key : vm_state_get_keys())
        if (key.starts_with(shadow_dir + '/'))
            if (const vm_state_ref_t state = vm_state_get(key))
                want_refresh(&*state);
}

}  // namespace mirador
