// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/vm_proxy_table.h"

#include <unistd.h>

#include <algorithm>
#include <array>

#include "appliance/exporter/controller_thr.h"
#include "appliance/exporter/vm_proxy_evict.h"
#include "appliance/lib/registry.h"
#include "appliance/lib/shadow_names.h"
#include "lib/cor_assert.h"
#include "lib/cor_string.h"

namespace mirador {
namespace {

// All names of one object share one cookie: where the directory "<shadow root>/<dir>/<alias>" is a symbolic link to the
// VM's own directory, both names are rewritten to the ones below the link's target.
void resolve_vm_uuid_alias(std::string* path, std::string* shadow_path) {
    const std::string& root = cnt_thr_namespaceroot();
    if (!shadow_path->starts_with(root + '/'))
        return;
    const std::size_t dir_end = shadow_path->find('/', root.size() + 1);
    const std::size_t alias_end = dir_end == std::string::npos ? dir_end : shadow_path->find('/', dir_end + 1);
    if (alias_end == std::string::npos)
        return;
    std::array<char, path_size> target{};
    const ssize_t length = readlink(shadow_path->substr(0, alias_end).c_str(), target.data(), target.size() - 1);
    if (length <= 0)
        return;
    *shadow_path = target.data() + shadow_path->substr(alias_end);
    *path = translate_shadow_path(*shadow_path, root);
}

cookie_ptr find_cookie(const vm_proxy_open_list_t& table, const std::string& path) REQUIRES(table.list_mutex) {
    const auto found = std::find_if(table.list.begin(), table.list.end(), [&path](const cookie_ptr& cookie) {
        cor_assert(cookie->magic == vm_proxy_cookie_t::magic_value);
        cor_assert(cookie->version == vm_proxy_cookie_t::version_value);
        return cookie->path == path;
    });
    return found == table.list.end() ? nullptr : *found;
}

// A cookie that is not in the table yet, with the proxy header of its shadow file.
errdesc_t* vm_proxy_new_cookie(const std::string& path, const std::string& shadow_path, cookie_ptr* out) {
    std::unique_ptr<vm_proxy_header_t> header;
    RETURN_IF_ERROR(vm_proxy_read_header_checked(shadow_path, &header));
    auto cookie = std::make_shared<vm_proxy_cookie_t>();
    cookie->path = path;
    cookie->shadow_path = shadow_path;
    vm_proxy_cookie_t& fresh = *cookie;
    const mutex_lock_t lock(fresh.mutex);
    fresh.header = *header;
    fresh.publish_info();
    *out = cookie;
    return nullptr;
}

// Puts `candidate` into the table and leaves in `victim` the cookie, now out of it and locked, whose place it took; a
// cookie that entered under the same path meanwhile is returned in `candidate` instead.
errdesc_t* admit(cookie_ptr* candidate, cookie_ptr* victim) NO_THREAD_SAFETY_ANALYSIS {
    vm_proxy_open_list_t& table = vm_proxy_open_list();
    const mutex_lock_t lock(table.list_mutex);
    if (cookie_ptr other = find_cookie(table, (*candidate)->path)) {
        *candidate = other;
        return nullptr;
    }
    const auto max_session = static_cast<std::size_t>(std::max(get_reg_settings()->max_session.get(), 0));
    if (table.list.size() >= max_session)  // above it when the controller's settings came after the first clients
        RETURN_IF_ERROR(vm_proxy_take_victim(true, std::nullopt, victim));
    table.list.push_back(*candidate);
    return nullptr;
}

errdesc_t* evict_victim(const cookie_ptr& victim) NO_THREAD_SAFETY_ANALYSIS {
    errdesc_t* e = vm_proxy_do_evict(*victim, false);
    victim->mutex.unlock();
    return e;
}

}  // namespace

void vm_proxy_cookie_t::publish_info() {
    const mutex_lock_t lock(info_mutex);
    info_ = {header.type, header.vm_uuid, devicemapper_path};
}

cookie_info_t vm_proxy_cookie_t::info() const {
    const mutex_lock_t lock(info_mutex);
    return info_;
}

vm_proxy_open_list_t& vm_proxy_open_list() {
    static vm_proxy_open_list_t table;
    return table;
}

void vm_proxy_api_init() {
    vm_proxy_open_list_t& table = vm_proxy_open_list();
    table.magic = vm_proxy_open_list_t::magic_value;
    table.version = vm_proxy_open_list_t::version_value;
}

errdesc_t* vm_proxy_get_cookie(const std::string& path, const std::string& shadow_path, cookie_ptr* cookie) {
    vm_proxy_open_list_t& table = vm_proxy_open_list();
    cor_assert(table.magic == vm_proxy_open_list_t::magic_value);
    cor_assert(table.version == vm_proxy_open_list_t::version_value);
    std::string key = path;
    std::string shadow = shadow_path;
    if (get_reg_settings()->export_vm_uuid_enabled)
        resolve_vm_uuid_alias(&key, &shadow);
    {
        const mutex_lock_t lock(table.list_mutex);
        *cookie = find_cookie(table, key);
    }
    if (*cookie != nullptr)
        return nullptr;

    cookie_ptr victim;
    RETURN_IF_ERROR(vm_proxy_new_cookie(key, shadow, cookie));
    RETURN_IF_ERROR(admit(cookie, &victim));
    if (victim == nullptr)
        return nullptr;
    errdesc_t* e = evict_victim(victim);
    if (e != nullptr) {
        vm_proxy_cookie_t& admitted = **cookie;
        const mutex_lock_t lock(admitted.mutex);
        if (admitted.stamp == 0)  // nobody else has opened it meanwhile
            vm_proxy_remove_cookie(admitted);
    }
    return e;
}

void vm_proxy_remove_cookie(vm_proxy_cookie_t& cookie) {
    vm_proxy_open_list_t& table = vm_proxy_open_list();
    cookie.detached = true;
    const mutex_lock_t lock(table.list_mutex);
    std::erase_if(table.list, [&cookie](const cookie_ptr& other) { return other.get() == &cookie; });
}

}  // namespace mirador
