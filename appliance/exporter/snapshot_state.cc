// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/snapshot_state.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <string_view>
#include <utility>

#include "appliance/lib/shadow_names.h"
#include "lib/cor_assert.h"
#include "lib/log.h"

namespace mirador {
namespace {

constexpr std::size_t suffix_max = 20;  // characters
constexpr int dump_level = 2;

std::string vendor_prefix(const std::string& vendor_id) {
    return vendor_id + ": ";
}

std::string lock_path(const std::string& dir) {
    return dir + '/' + std::string(shadow_lock_name);
}

unique_fd open_lock(const std::string& path, int creating) {
    constexpr mode_t everybody = 0777;
    return unique_fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | creating, everybody));
}

bool take_lock(int fd, int operation) {
    int outcome = 0;
    do
        outcome = flock(fd, operation);
    while (outcome != 0 && errno == EINTR);
    return outcome == 0;
}

template <typename match_t>
snapshot_state_ptr find_first(const snapshot_list_t& list, const match_t& match) {
    snapshot_state_ptr found;
    list_iter(list, [&](const snapshot_state_ptr& state) {
        cor_assert(state->magic == snapshot_state_t::magic_value);
        if (match(*state))
            found = state;
        return found == nullptr;
    });
    return found;
}

bool is_elsewhere(const snapshot_state_t& state, const std::string& hv_name, const std::string& vm_uuid) {
    return state.vmuuid == vm_uuid && state.hvname != hv_name;
}

// A regular expression that matches `text` alone, at its place.
std::string escaped(const std::string& text) {
    std::string pattern;
    for (const char c : text) {
        if (std::string_view(".^$|()[]{}*+?\\/").find(c) != std::string_view::npos)
            pattern += '\\';
        pattern += c;
    }
    return pattern;
}

}  // namespace

void snapshot_state_check(const snapshot_state_t& state) {
    cor_assert(state.magic == snapshot_state_t::magic_value);
    cor_assert(state.version == snapshot_state_t::version_value);
    cor_assert(state.ref >= 0);
}

snapshot_state_ptr snapshot_state_find(const snapshot_list_t& list, const std::string& hv_name,
                                       const std::string& vm_uuid) {
    return find_first(
        list, [&](const snapshot_state_t& state) { return state.hvname == hv_name && state.vmuuid == vm_uuid; });
}

snapshot_state_ptr snapshot_state_used_elsewhere(const snapshot_list_t& list, const std::string& hv_name,
                                                 const std::string& vm_uuid) {
    return find_first(
        list, [&](const snapshot_state_t& state) { return is_elsewhere(state, hv_name, vm_uuid) && state.ref > 0; });
}

void snapshot_state_distrust_elsewhere(const snapshot_list_t& list, const std::string& hv_name,
                                       const std::string& vm_uuid) {
    list_iter(list, [&](const snapshot_state_ptr& state) {
        if (is_elsewhere(*state, hv_name, vm_uuid))
            state->removal_begun = true;
        return true;
    });
}

void snapshot_state_dump(const snapshot_list_t& list) {
    if (get_debug_level() < dump_level)
        return;
    list_dump(list, [](const snapshot_state_ptr& state) {
        ts_printf("snapshot_state: '%s' of %s (%s) on %s: ref = %jd, atime = %jd, created = %d\n",
                  state->snapshotname.c_str(), state->vmname.c_str(), state->vmuuid.c_str(), state->hvname.c_str(),
                  static_cast<std::intmax_t>(state->ref), static_cast<std::intmax_t>(state->atime),
                  state->snapshot_created ? 1 : 0);
    });
}

snapshotdesc_t snapshot_state_desc(const snapshot_state_t& state, const ks_hypervisor_config_t& hvc, bool blocking) {
    snapshotdesc_t desc;
    snapshot_init(&desc);
    desc.type = ESX_HYPERVISOR;
    desc.server = ks_text(hvc.hostname);
    desc.port = static_cast<int>(hvc.hv_port);
    desc.user = ks_text(hvc.login_name);
    if (hvc.password)
        desc.passwd = *hvc.password;
    desc.vmname = state.vmname;
    desc.vmuuid = state.vmuuid;
    desc.snapshotname = state.snapshotname;
    desc.quiesce = state.quiesce;
    desc.blocking = blocking;
    return desc;
}

errdesc_t* snapshot_name_make(const std::string& vendor_id, const std::string& uuid, const ks_string_t& suffix,
                              std::string* name) {
    if (vendor_id.empty() || uuid.empty())
        return errdesc_set_str(ERR_NOT_AVAILABLE, "The appliance does not know its own identity yet");
    *name = vendor_prefix(vendor_id) + uuid;
    const std::string text = ks_text(suffix);
    if (text.empty())
        return nullptr;
    if (text.size() > suffix_max)
        return errdesc_set_fmt(EINVAL, "Length of snapshot suffix (%s) is larger than 20 characters.", text.c_str());
    *name += ' ' + text;
    return nullptr;
}

std::string snapshot_name_pattern(const std::string& vendor_id, const std::string& uuid) {
    return escaped(vendor_prefix(vendor_id) + uuid) + ".*";
}

std::string snapshot_name_pattern(const std::string& vendor_id) {
    return escaped(vendor_prefix(vendor_id)) + ".*";
}

bool snapshot_name_is_vendors(const std::string& name, const std::string& vendor_id) {
    return !vendor_id.empty() && name.starts_with(vendor_prefix(vendor_id));
}

bool snapshot_name_is_ours(const std::string& name, const std::string& vendor_id, const std::string& uuid) {
    if (vendor_id.empty() || uuid.empty())
        return false;
    const std::string own = vendor_prefix(vendor_id) + uuid;
    // A uuid that only begins like ours is another appliance's.
    return name.starts_with(own) && (name.size() == own.size() || name[own.size()] == ' ');
}

errdesc_t* snapshot_state_lock(const std::string& path, unique_fd* fd, bool shared) {
    const std::string file = lock_path(path.substr(0, path.rfind('/')));
    unique_fd opened = open_lock(file, O_CREAT);
    if (!opened || !take_lock(opened.get(), shared ? LOCK_SH : LOCK_EX | LOCK_NB))
        return errdesc_set_str(errno, file);
    *fd = std::move(opened);
    return nullptr;
}

bool snapshot_state_is_locked(const std::string& dir) {
    const unique_fd fd = open_lock(lock_path(dir), 0);
    return fd && !take_lock(fd.get(), LOCK_EX | LOCK_NB) && errno == EAGAIN;
}

}  // namespace mirador
