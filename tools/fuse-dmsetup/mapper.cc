// SPDX-License-Identifier: Apache-2.0
#include "tools/fuse-dmsetup/mapper.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ranges>

namespace mirador {
namespace {

// How long a removal waits for a close: the kernel reports one only after the closing process goes on.
constexpr std::chrono::milliseconds close_delay(500);

}  // namespace

// The devices that lie over others give them up while there is a set to look them up in.
mapper_t::~mapper_t() {
    devices_t gone;
    const mutex_lock_t lock(mutex_);
    gone.swap(devices_);
}

errdesc_t* mapper_t::check_name(const std::string& name) {
    const bool is_special = name.empty() || name == "." || name == ".." || name == "control";
    if (is_special || name.size() > max_name || name.find('/') != name.npos)
        return errdesc_set_fmt(EINVAL, "not a device name: \"%s\"", name.c_str());
    return nullptr;
}

mapper_t::devices_t::iterator mapper_t::find_name(const std::string& name) {
    auto it = devices_.begin();
    while (it != devices_.end() && it->second.name != name)
        ++it;
    return it;
}

errdesc_t* mapper_t::create(const std::string& name, dm_table_t table) {
    const std::uint64_t size = table.sectors() * sector_size;
    auto shared = std::make_shared<const dm_table_t>(std::move(table));
    const mutex_lock_t lock(mutex_);
    if (find_name(name) != devices_.end())
        return errdesc_set(EBUSY);
    devices_[next_inode_++] = {.name = name, .size = size, .table = std::move(shared)};
    return nullptr;
}

bool mapper_t::wait_until_closed(mapper_inode_t inode, time_point_t deadline) {
    for (;;) {
        const auto it = devices_.find(inode);
        if (it == devices_.end() || it->second.opens == 0)
            return true;
        if (closed_.wait_until(mutex_, deadline) == std::cv_status::timeout)
            return false;
    }
}

errdesc_t* mapper_t::remove(const std::string& name, bool force) {
    return remove_until(name, force, std::chrono::steady_clock::now() + close_delay);
}

errdesc_t* mapper_t::remove_until(const std::string& name, bool force, time_point_t deadline) {
    mapper_entry_t changed;
    std::shared_ptr<const dm_table_t> table;  // outlives the lock: closing devices may take its time
    bool is_closed = false;
    {
        const mutex_lock_t lock(mutex_);
        auto it = find_name(name);
        if (it == devices_.end())
            return errdesc_set(ENXIO);
        changed = {name, it->first, it->second.size};
        is_closed = wait_until_closed(changed.inode, deadline);
        it = devices_.find(changed.inode);
        if (it == devices_.end())
            return errdesc_set(ENXIO);
        if (is_closed || force)
            table = std::move(it->second.table);
        if (is_closed)
            devices_.erase(it);
    }
    if (is_closed || force)
        on_changed(changed);
    return is_closed ? nullptr : errdesc_set(EBUSY);
}

void mapper_t::remove_all(bool force) {
    const auto deadline = std::chrono::steady_clock::now() + close_delay;
    const std::vector<mapper_entry_t> entries = list();
    for (auto entry = entries.rbegin(); entry != entries.rend(); ++entry)
        (void)remove_until(entry->name, force, deadline);
}

bool mapper_t::is_empty() {
    const mutex_lock_t lock(mutex_);
    return devices_.empty();
}

std::vector<mapper_entry_t> mapper_t::list() {
    const mutex_lock_t lock(mutex_);
    std::vector<mapper_entry_t> entries;
    for (const auto& [inode, mapped] : devices_)
        entries.push_back({mapped.name, inode, mapped.size});
    return entries;
}

std::optional<mapper_entry_t> mapper_t::find(const std::string& name) {
    const mutex_lock_t lock(mutex_);
    const auto it = find_name(name);
    if (it == devices_.end())
        return {};
    return mapper_entry_t{name, it->first, it->second.size};
}

std::optional<mapper_entry_t> mapper_t::find(mapper_inode_t inode) {
    const mutex_lock_t lock(mutex_);
    const auto it = devices_.find(inode);
    if (it == devices_.end())
        return {};
    return mapper_entry_t{it->second.name, inode, it->second.size};
}

std::shared_ptr<const dm_table_t> mapper_t::table(mapper_inode_t inode) {
    const mutex_lock_t lock(mutex_);
    const auto it = devices_.find(inode);
    return it == devices_.end() ? nullptr : it->second.table;
}

std::shared_ptr<const dm_table_t> mapper_t::hold(const std::string& name) {
    const mutex_lock_t lock(mutex_);
    const auto it = find_name(name);
    if (it == devices_.end() || it->second.table == nullptr)
        return nullptr;
    ++it->second.opens;
    const auto let_go = [this, inode = it->first, table = it->second.table](const dm_table_t*) { release(inode); };
    return {it->second.table.get(), let_go};
}

bool mapper_t::open(mapper_inode_t inode) {
    const mutex_lock_t lock(mutex_);
    const auto it = devices_.find(inode);
    if (it == devices_.end())
        return false;
    ++it->second.opens;
    return true;
}

void mapper_t::release(mapper_inode_t inode) {
    const mutex_lock_t lock(mutex_);
    const auto it = devices_.find(inode);
    if (it != devices_.end() && --it->second.opens == 0)
        closed_.notify_all();
}

}  // namespace mirador
