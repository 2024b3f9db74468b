// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/vd_state.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string_view>
#include <utility>

#include "appliance/exporter/flat_mtime.h"
#include "appliance/exporter/vm_proxy_remove.h"
#include "appliance/exporter/vm_proxy_touch.h"
#include "appliance/lib/corcbt.h"
#include "appliance/lib/registry.h"
#include "appliance/lib/shadow_names.h"
#include "controller/lib/inventory_check.h"
#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/log.h"
#include "lib/tool_paths.h"
#include "vmware/lib/vmdk/datastore_containment.h"
#include "vmware/lib/vmdk/datastore_path.h"
#include "vmware/lib/vmdk/vmdk_names.h"
#include "vmware/lib/vmdk/vmdk_open.h"

namespace mirador {
namespace {

constexpr int keep_level = 2;  // debug levels
constexpr int touch_level = 3;
constexpr std::int64_t corcbt_block = 4096;  // changed-block entries are whole blocks

// What is known of one disk while it is refreshed.
struct vd_look_t {
    std::string current_vd_path;
    std::string current_vd_fpath;
    std::string current_extent_fpath;
    std::string root_vd_fpath;
    std::string root_extent_fpath;
    struct ::stat stat {};
};

errdesc_t* vd_unlink(const std::string& name) {
    return vm_proxy_remove(name);
}

void log_failure(errdesc_t* e) {
    if (e != nullptr)
        _errdesc_log(e, ERRDESC_ERROR);
}

void check_state(const vd_state_t& state) {
    cor_assert(state.magic == vd_state_t::magic_value);
    cor_assert(state.version == vd_state_t::version_value);
}

// The first state that `is` accepts; null when there is none. It stays the list's.
template <typename predicate_t>
vd_state_t* find(vd_list_t* vd_list, predicate_t is) {
    vd_state_t* found = nullptr;
    list_iter(*vd_list, [&](std::unique_ptr<vd_state_t>& state) {
        check_state(*state);
        if (is(*state))
            found = state.get();
        return found == nullptr;
    });
    return found;
}

vd_state_t* find_root(vd_list_t* vd_list, const std::string& root_vd_fpath) {
    return find(vd_list, [&](const vd_state_t& state) { return state.root_vd_fpath == root_vd_fpath; });
}

errdesc_t* take_paths(const ks_vdisk_t& vdisk, const vd_update_t& update, vd_look_t* look) {
    cor_assert(vdisk.head_ascii_path.has_value());
    RETURN_IF_ERROR(ks_vdisk_check(vdisk));
    look->current_vd_path = *vdisk.head_ascii_path;
    look->current_extent_fpath = *vdisk.head_extent_path;
    look->root_vd_fpath = *vdisk.base_ascii_path;
    look->root_extent_fpath = *vdisk.base_extent_path;
    RETURN_IF_ERROR(vd_get_fpath(look->current_vd_path, update.working_dir, update.vm_dir, &look->current_vd_fpath));
    for (const std::string* path : {&look->current_vd_fpath, &look->current_extent_fpath, &look->root_extent_fpath})
        if (!is_on_datastore(*path))  // what a descriptor elsewhere names would not be checked
            return errdesc_set_fmt(EINVAL, "Disk refused, outside every datastore: %s", path->c_str());
    for (const std::string* path : {&look->current_vd_fpath, &look->root_vd_fpath})
        if (path->size() >= sizeof(vm_proxy_header_t::path))
            return errdesc_set_str(ENAMETOOLONG, *path);
    return nullptr;
}

// Stats the head descriptor and tells whether the disk must be looked at again.
errdesc_t* vd_need_refresh(const vd_state_t* old, bool keep_mtime, vd_look_t* look, bool* need) {
    if (stat(look->current_vd_fpath.c_str(), &look->stat) != 0)
        return errdesc_set_str(errno, look->current_vd_fpath);
    *need = old == nullptr || old->current_vd_path != look->current_vd_path ||
            old->stat.st_mtim.tv_sec != look->stat.st_mtim.tv_sec || old->stat.st_size != look->stat.st_size;
    if (*need && keep_mtime && old != nullptr) {
        look->stat.st_mtim = old->stat.st_mtim;
        look->stat.st_ctim = old->stat.st_ctim;
    }
    return nullptr;
}

void set_names(vd_state_t* state, const std::string& vm_shadow_path) {
    state->vd_shadow_path = cor_format_path("%s/%s", vm_shadow_path.c_str(), state->new_vd_name.c_str());
    state->extent_shadow_path = cor_format_path("%s/%s", vm_shadow_path.c_str(), state->new_extent_name.c_str());
}

errdesc_t* vd_create(const vd_look_t& look, const vd_update_t& update, std::unique_ptr<vd_state_t>* out) {
    auto state = std::make_unique<vd_state_t>();
    state->current_vd_path = look.current_vd_path;
    state->current_vd_fpath = look.current_vd_fpath;
    state->root_vd_fpath = look.root_vd_fpath;
    state->current_extent_fpath = look.current_extent_fpath;
    state->root_extent_fpath = look.root_extent_fpath;
    std::string_view in_datastores;
    RETURN_IF_ERROR(remove_datastore_mount_point(look.root_vd_fpath, &in_datastores));
    state->cached_vd_fpath = tool_paths().cache_dir + '/' + std::string(in_datastores);
    state->old_vd_name = state->new_vd_name = last_component(look.root_vd_fpath);
    state->old_extent_name = state->new_extent_name = last_component(look.root_extent_fpath);
    RETURN_IF_ERROR(shadow_check_name(state->new_vd_name, "Disk name"));
    RETURN_IF_ERROR(shadow_check_name(state->new_extent_name, "Extent name"));
    set_names(state.get(), update.vm_shadow_path);
    *out = std::move(state);
    return nullptr;
}

bool has_reserved(const vd_update_t& update, const vd_state_t& state) {
    return std::ranges::any_of(update.reserved, [&](const std::string& name) {
        return name == state.new_vd_name || name == state.new_extent_name;
    });
}

bool has_name(const vd_state_t& state, const std::string& name) {
    return state.new_vd_name == name || state.new_extent_name == name;
}

// Gives the disk names that no other disk has, be it for a descriptor or an extent. One that this update leaves behind
// may be replaced by a descriptor of its name; otherwise its end would take the new disk's entry along.
errdesc_t* vd_resolve_conflict(vd_list_t* vd_list, const vd_update_t& update, vd_state_t* state) {
    const auto stands_in_the_way = [&](const vd_state_t& other) {
        return other.root_vd_fpath != state->root_vd_fpath &&
               (has_name(other, state->new_vd_name) || has_name(other, state->new_extent_name)) &&
               (other.gen == update.gen || other.new_vd_name != state->new_vd_name);
    };
    while (has_reserved(update, *state) || find(vd_list, stands_in_the_way) != nullptr) {
        RETURN_IF_ERROR(vmdk_rename(&state->new_vd_name));
        RETURN_IF_ERROR(vmdk_rename(&state->new_extent_name));
        RETURN_IF_ERROR(shadow_check_name(state->new_vd_name, "Disk name"));
        RETURN_IF_ERROR(shadow_check_name(state->new_extent_name, "Extent name"));
        set_names(state, update.vm_shadow_path);
        state->renamed = true;
    }
    return nullptr;
}

errdesc_t* take_names(vd_list_t* vd_list, const vd_update_t& update, const vd_state_t* old, vd_state_t* state) {
    const std::string own_name = state->vd_shadow_path;
    if (old == nullptr) {
        RETURN_IF_ERROR(vd_resolve_conflict(vd_list, update, state));
        ts_dprintf(keep_level, "%s resolve to name %s\n", own_name.c_str(), state->vd_shadow_path.c_str());
        return nullptr;
    }
    state->vd_shadow_path = old->vd_shadow_path;
    state->extent_shadow_path = old->extent_shadow_path;
    state->new_vd_name = old->new_vd_name;
    state->new_extent_name = old->new_extent_name;
    state->renamed = old->renamed;
    ts_dprintf(keep_level, "%s reusing old name %s\n", own_name.c_str(), state->vd_shadow_path.c_str());
    return nullptr;
}

// Where the disk's changed-block entry stands; false when its name allows none.
bool corcbt_path(const vd_state_t& state, std::string* path) {
    errdesc_t* e = flat_to_corcbt(state.extent_shadow_path, path);
    if (e != nullptr && get_reg_settings()->cbt_debug_enabled)
        _errdesc_log(e, ERRDESC_ERROR);
    return e == nullptr;
}

void unlink_corcbt(const vd_state_t& state) {
    std::string path;
    if (corcbt_path(state, &path) && access(path.c_str(), F_OK) == 0)
        log_failure(vd_unlink(path));
}

// Puts the state into the list, in the place of the one that had its name. That stays until here: a disk whose refresh
// fails keeps its names, and its entries go with it one day.
void replace(vd_list_t* vd_list, std::unique_ptr<vd_state_t> state) {
    const vd_state_t* predecessor =
        find(vd_list, [&](const vd_state_t& other) { return other.vd_shadow_path == state->vd_shadow_path; });
    if (predecessor != nullptr && predecessor->extent_shadow_path != state->extent_shadow_path) {
        log_failure(vd_unlink(predecessor->extent_shadow_path));  // nobody else's: names are told apart
        std::string before;
        std::string now;
        if (corcbt_path(*predecessor, &before) && !(corcbt_path(*state, &now) && now == before))
            unlink_corcbt(*predecessor);
    }
    const char* change = predecessor == nullptr ? "added" : "updated";
    if (predecessor == nullptr || predecessor->current_vd_path != state->current_vd_path)
        ts_printf("vd_update: %s %s to %s\n", change, state->vd_shadow_path.c_str(),
                  state->current_extent_fpath.c_str());
    if (predecessor != nullptr)
        list_delete(*vd_list, predecessor);
    list_add(*vd_list, std::move(state));
}

// A new state for a disk that is looked at again.
errdesc_t* vd_refresh(vd_list_t* vd_list, const ks_vdisk_t& vdisk, const vd_update_t& update, const vd_look_t& look,
                      const vd_state_t* old, std::unique_ptr<vd_state_t>* out) {
    struct ::stat extent_stat {};
    if (stat(look.root_extent_fpath.c_str(), &extent_stat) != 0)
        return errdesc_set_extended_err(errno, look.root_extent_fpath);
    std::unique_ptr<vd_state_t> state;
    RETURN_IF_ERROR(vd_create(look, update, &state));
    state->thinprovisioned = vdisk.thinprovisioned;
    RETURN_IF_ERROR(take_names(vd_list, update, old, state.get()));
    state->stat = look.stat;
    state->extent_size = extent_stat.st_size;
    state->vd_size = static_cast<std::int64_t>(vdisk.flat_file_size);
    *out = std::move(state);
    return nullptr;
}

vm_proxy_touch_t touch_of(const vd_update_t& update, vm_proxy_header_type_t type, const std::string& link_path,
                          const std::string& stat_path, std::int64_t size) {
    return {.link_path = link_path,
            .stat_path = stat_path,
            .vm_uuid = update.vm_uuid,
            .hv_name = update.hv_name,
            .type = type,
            .size = size,
            .is_template = update.is_template,
            .keep_mtime = update.keep_mtime};
}

errdesc_t* touch(const std::string& shadow_path, const vm_proxy_touch_t& touch) {
    RETURN_IF_ERROR(vm_proxy_touch_check(touch));
    return vm_proxy_touch(shadow_path, touch);
}

// What an entry's failure means: "try again" ends the update, anything else is only logged.
errdesc_t* judge(errdesc_t* e) {
    if (e == nullptr || e->number == EAGAIN)
        return e;
    _errdesc_log(e, ERRDESC_ERROR);
    return nullptr;
}

bool debugs_cbt() {
    return get_reg_settings()->cbt_debug_enabled;
}

// How large the head's extent is then tells nothing of the disk.
bool is_delta(const vd_state_t& state) {
    return state.current_extent_fpath != state.root_extent_fpath;
}

// The time that tracking gives a flat disk, where it does. An update that keeps the old time decides nothing: a reset
// would be done whose new time no client has seen.
errdesc_t* tracked_mtime(const vd_state_t& state, const vd_update_t& update, std::optional<std::time_t>* mtime) {
    std::string corcbt;
    if (!update.use_cbt || update.keep_mtime || (update.cbt_reset_time == 0 && !update.cbt_reset_pending) ||
        !corcbt_path(state, &corcbt))
        return nullptr;
    struct ::stat extent_stat {};
    if (stat(state.current_extent_fpath.c_str(), &extent_stat) != 0)
        return errdesc_set_extended_err(errno, state.current_extent_fpath);
    const std::int64_t own_size = is_delta(state) ? 0 : extent_stat.st_size;
    const flat_mtime_input_t input{.actual_mtime = extent_stat.st_mtim.tv_sec,
                                   .st_size = std::max(own_size, state.extent_size),
                                   .cbt_reset_pending = update.cbt_reset_pending,
                                   .cbt_reset_time = update.cbt_reset_time,
                                   .cbt_reset_time_prev = update.cbt_reset_time_prev,
                                   .vm_uuid = update.vm_uuid,
                                   .shadow_path = state.extent_shadow_path};
    return get_flat_file_mtime(input, &mtime->emplace());
}

errdesc_t* touch_extent(vd_state_t* state, const vd_update_t& update) {
    vm_proxy_touch_t flat = touch_of(update, VM_PROXY_HEADER_VMDK_FLAT, state->current_vd_fpath,
                                     state->current_extent_fpath, state->extent_size);
    flat.is_delta = is_delta(*state);
    errdesc_t* e = tracked_mtime(*state, update, &flat.mtime);
    state->cbt_reset_failed = e != nullptr;
    if (e != nullptr && debugs_cbt())
        _errdesc_log(e, ERRDESC_ERROR);
    e = touch(state->extent_shadow_path, flat);
    state->cbt_reset_failed = state->cbt_reset_failed || e != nullptr;
    return judge(e);
}

errdesc_t* touch_disk(vd_state_t* state, const vd_update_t& update) {
    RETURN_IF_ERROR(touch_extent(state, update));
    const std::string& served = state->renamed ? state->cached_vd_fpath : state->root_vd_fpath;
    return judge(
        touch(state->vd_shadow_path, touch_of(update, VM_PROXY_HEADER_VMDK_ASCII, served, served, state->vd_size)));
}

// The size of a disk's changed-block entry. The controller is only asked when its answer counts.
errdesc_t* corcbt_size(const vd_state_t& state, const std::string& vm_uuid, const std::string& path,
                       std::int64_t* size) {
    *size = corcbt_block;
    if (get_reg_settings()->cbt_percent == 0) {
        if (debugs_cbt())
            ts_printf("vd_update overriding corcbt_size with: %d\n", static_cast<int>(corcbt_block));
        return nullptr;
    }
    std::uint32_t percent = 0;
    RETURN_IF_ERROR(get_corcbt_size_percent(vm_uuid, path, &percent));
    *size = (state.extent_size * percent / 100 + corcbt_block - 1) / corcbt_block * corcbt_block;
    return nullptr;
}

errdesc_t* add_corcbt(const vd_state_t& state, const vd_update_t& update, const std::string& path) {
    if (debugs_cbt())
        ts_printf("vd_update adding corcbt file for %s\n", state.vd_shadow_path.c_str());
    std::int64_t size = 0;
    RETURN_IF_ERROR(corcbt_size(state, update.vm_uuid, path, &size));
    errdesc_t* e = touch(
        path, touch_of(update, VM_PROXY_HEADER_VMDK_CORCBT, state.current_vd_fpath, state.current_extent_fpath, size));
    if (e != nullptr && e->number != EAGAIN)
        _errdesc_log(e, ERRDESC_ERROR);
    return e;
}

errdesc_t* remove_corcbt(const std::string& path) {
    if (access(path.c_str(), F_OK) != 0)
        return nullptr;
    if (debugs_cbt())
        ts_printf("vd_update unlinking corcbt: %s\n", path.c_str());
    errdesc_t* e = vd_unlink(path);
    if (e != nullptr)
        _errdesc_log(e, ERRDESC_ERROR);
    return e;
}

errdesc_t* update_corcbt(const vd_state_t& state, const vd_update_t& update) {
    std::string path;
    if (!corcbt_path(state, &path))
        return nullptr;
    return update.use_cbt ? add_corcbt(state, update, path) : remove_corcbt(path);
}

// Removes the two entries that every disk has, and the copy in the cache.
void unlink_disk(const vd_state_t& state, bool keeps_copy) {
    log_failure(vd_unlink(state.vd_shadow_path));
    log_failure(vd_unlink(state.extent_shadow_path));
    if (!keeps_copy)
        (void)unlink(state.cached_vd_fpath.c_str());  // hardly ever there
}

void vd_unlink_all(const vd_state_t& state) {
    unlink_disk(state, false);
    unlink_corcbt(state);
}

}  // namespace

void vd_touch_gen(const ks_vdisk_list_t& vmc_vdisk_list, vd_list_t* vd_list, std::uint64_t gen) {
    for (const ks_vdisk_t& vdisk : vmc_vdisk_list) {
        vd_state_t* state = find_root(vd_list, ks_text(vdisk.base_ascii_path));
        if (state == nullptr || vdisk.independent)
            continue;
        state->gen = gen;
        ts_dprintf(touch_level, "touched %s to %jd\n", state->new_vd_name.c_str(), static_cast<std::intmax_t>(gen));
    }
}

void vd_reserve(const ks_vdisk_t& vdisk, vd_update_t* update) {
    for (const ks_string_t* path : {&vdisk.base_ascii_path, &vdisk.base_extent_path})
        update->reserved.emplace_back(last_component(ks_text(*path)));
}

const vd_state_t* vd_find(vd_list_t* vd_list, const ks_vdisk_t& vdisk) {
    return find_root(vd_list, ks_text(vdisk.base_ascii_path));
}

bool vd_is_current(const ks_vdisk_list_t& vmc_vdisk_list, vd_list_t* vd_list, const std::string& extent_shadow_path) {
    return std::ranges::any_of(vmc_vdisk_list, [&](const ks_vdisk_t& vdisk) {
        const vd_state_t* state = find_root(vd_list, ks_text(vdisk.base_ascii_path));
        return state != nullptr && !vdisk.independent && state->extent_shadow_path == extent_shadow_path &&
               state->current_vd_path == ks_text(vdisk.head_ascii_path);
    });
}

errdesc_t* vd_update(vd_list_t* vd_list, const ks_vdisk_t& vdisk, const vd_update_t& update,
                     const vd_state_t** vd_state_out) {
    vd_look_t look;
    RETURN_IF_ERROR(take_paths(vdisk, update, &look));
    vd_state_t* state = find_root(vd_list, look.root_vd_fpath);
    const bool is_new = state == nullptr;
    bool need_refresh = false;
    RETURN_IF_ERROR(vd_need_refresh(state, update.keep_mtime, &look, &need_refresh));
    std::unique_ptr<vd_state_t> fresh;
    if (need_refresh || update.force) {
        RETURN_IF_ERROR(vd_refresh(vd_list, vdisk, update, look, state, &fresh));
        state = fresh.get();
    }
    state->gen = update.gen;
    if (state->renamed && fresh != nullptr)
        RETURN_IF_ERROR(vmdk_copy_descfiles(state->root_vd_fpath, state->cached_vd_fpath, state->old_extent_name,
                                            state->new_extent_name, &state->vd_size));
    errdesc_t* e = touch_disk(state, update);
    if (e == nullptr)
        e = update_corcbt(*state, update);
    const errdesc_keeper_t keeper;
    if (e == nullptr)
        *vd_state_out = state;
    if (fresh != nullptr && (e == nullptr || is_new))
        replace(vd_list, std::move(fresh));
    return e;
}

void vd_stop_old(vd_list_t* vd_list, std::uint64_t gen) {
    while (const vd_state_t* old = find(vd_list, [gen](const vd_state_t& state) { return state.gen != gen; })) {
        vd_unlink_all(*old);
        ts_printf("vd_stop_old: removed '%s'\n", old->vd_shadow_path.c_str());
        list_delete(*vd_list, old);
    }
}

void vd_stop_all(vd_list_t* vd_list, bool keeps_copies) {
    while (const std::optional<std::unique_ptr<vd_state_t>> state = list_pop(*vd_list))
        unlink_disk(**state, keeps_copies);
}

errdesc_t* vd_get_fpath(const std::string& head_ascii_path, const std::string& working_dir, const std::string& vm_dir,
                        std::string* fpath) {
    for (const std::string& dir : {working_dir, vm_dir}) {
        RETURN_IF_ERROR(get_preferred_datastore_path(vmdk_get_path(head_ascii_path, dir), fpath));
        if (access(fpath->c_str(), R_OK) == 0)
            return nullptr;
    }
    return errdesc_set_extended_err(errno, *fpath);
}

}  // namespace mirador
