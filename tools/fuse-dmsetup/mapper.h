// SPDX-License-Identifier: Apache-2.0
// The mapped devices of one /dev/mapper: who exists under which name and inode number, who is open.
//
// One mutex guards the set; it is held for moments, never during a read or while a table is parsed. A read holds on to
// its device's table, so that a device may go or fail meanwhile. Inode numbers are never used twice: what the kernel
// has cached for one stays true.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lib/errdesc.h"
#include "lib/thread_annotations.h"
#include "tools/fuse-dmsetup/dm_table.h"

namespace mirador {

using mapper_inode_t = std::uint64_t;

struct mapper_entry_t {
    std::string name;
    mapper_inode_t inode;
    std::uint64_t size;  // bytes
};

class mapper_t {
  public:
    mapper_t() = default;
    mapper_t(const mapper_t&) = delete;
    mapper_t& operator=(const mapper_t&) = delete;
    ~mapper_t();

    static constexpr mapper_inode_t first_inode = 2;  // 1 is the directory
    static constexpr std::size_t max_name = 127;      // bytes

    // EINVAL for a name that is empty, too long, "." or "..", holds a slash, or is "control".
    [[nodiscard]] static errdesc_t* check_name(const std::string& name);

    // Adds a device. Errors: EBUSY when the name is taken.
    [[nodiscard]] errdesc_t* create(const std::string& name, dm_table_t table) EXCLUDES(mutex_);

    // Removes a device, and with the last reader's end its table and its open devices are gone. A close that is under
    // way is waited for, a moment. Errors: ENXIO for an unknown name; EBUSY while it is open. With `force` a device
    // that is open fails every read from then on (and stays, and the error is the same).
    [[nodiscard]] errdesc_t* remove(const std::string& name, bool force) EXCLUDES(mutex_);

    // Removes every device that is not open, the newest first, as it may lie over older ones; with `force` reads from
    // the others fail from then on.
    void remove_all(bool force) EXCLUDES(mutex_);

    bool is_empty() EXCLUDES(mutex_);
    std::vector<mapper_entry_t> list() EXCLUDES(mutex_);
    std::optional<mapper_entry_t> find(const std::string& name) EXCLUDES(mutex_);
    std::optional<mapper_entry_t> find(mapper_inode_t inode) EXCLUDES(mutex_);
    // Null for an unknown device and for one whose reads fail.
    std::shared_ptr<const dm_table_t> table(mapper_inode_t inode) EXCLUDES(mutex_);

    // The table of the device `name`, for another device to lie over: the device counts as open until the pointer's
    // end, and reads through the pointer go on even if its own are made to fail. Null for an unknown device and for one
    // whose reads fail. No such pointer may outlive the mapper.
    std::shared_ptr<const dm_table_t> hold(const std::string& name) EXCLUDES(mutex_);

    // A file on the device is opened (false: it has gone) and closed.
    bool open(mapper_inode_t inode) EXCLUDES(mutex_);
    void release(mapper_inode_t inode) EXCLUDES(mutex_);

    // Called without the mutex for each device that was removed or made to fail, to have the kernel forget what it
    // cached of it. Set before any other thread knows the mapper.
    std::function<void(const mapper_entry_t&)> on_changed = [](const mapper_entry_t&) {};

  private:
    struct mapped_t {
        std::string name;
        std::uint64_t size;
        std::shared_ptr<const dm_table_t> table;  // null when reads fail
        unsigned opens = 0;
    };
    using time_point_t = std::chrono::steady_clock::time_point;
    using devices_t = std::map<mapper_inode_t, mapped_t>;

    devices_t::iterator find_name(const std::string& name) REQUIRES(mutex_);
    errdesc_t* remove_until(const std::string& name, bool force, time_point_t deadline) EXCLUDES(mutex_);
    bool wait_until_closed(mapper_inode_t inode, time_point_t deadline) REQUIRES(mutex_);

    mutex_t mutex_;
    std::condition_variable_any closed_;
    devices_t devices_ GUARDED_BY(mutex_);
    mapper_inode_t next_inode_ GUARDED_BY(mutex_) = first_inode;
};

}  // namespace mirador
