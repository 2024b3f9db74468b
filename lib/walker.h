// SPDX-License-Identifier: Apache-2.0
// Walking directory trees, and the list of mount points.
//
// A walk has a thread of its own. It passes every entry below its base to a filter and hands those that the filter
// accepts to the one message thread of the process, which calls the walk's callback: callbacks run one at a time, in
// the order in which entries were accepted, and never on a walking thread. The message thread is made on first use.
//
// One mutex guards the queue and all counters; neither filter nor callback is called with it held.
#pragma once

#include <mntent.h>
#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "lib/errdesc.h"
#include "lib/file_io.h"

namespace mirador {

inline constexpr std::size_t walker_max_threads = 64;

// What filter and callback see of an entry.
struct walker_cb_desc_t {
    std::string base;
    std::string path;      // of the entry
    struct stat sb;        // of the entry itself, if a symbolic link of that; zeros when it could not be had
    std::uint64_t hits;    // entries of this walk accepted so far
    std::uint64_t misses;  // entries rejected
};

using walker_filter_t = std::function<bool(const walker_cb_desc_t&)>;
using walker_callback_t = std::function<void(const walker_cb_desc_t&)>;

struct walker_start_desc_t {
    std::string base;
    walker_filter_t filter;  // none: every entry is accepted
    walker_callback_t callback;
};

// Starts a walk below `base`, the base included; links are not followed and mount points not crossed. A base that
// cannot be walked ends the walk without a callback. Error: errno with the base when there can be no thread. Asserted:
// the base is not empty, there is a callback, *thread is none.
[[nodiscard]] errdesc_t* walker_start(walker_start_desc_t desc, std::thread* thread);

// Waits for walks to end, which they do once all their callbacks have returned, and empties the list. Asserted: there
// are walker_max_threads at most.
void walker_wait(std::vector<std::thread>* threads);

// Ends the message thread, after the callback it is in, and every walk at its next entry; entries still queued are
// dropped. A later walker_start begins anew. Not to be called from a callback.
void walker_end();

// The mount table, to be read by walker_get_mount_points; null with errno when it cannot be opened.
struct mount_table_closer_t {
    void operator()(std::FILE* stream) const { endmntent(stream); }
};
using mount_table_ptr = std::unique_ptr<std::FILE, mount_table_closer_t>;
mount_table_ptr walker_start_mount_points();

// The next mount point that is not of an ignored type; nothing at the end.
std::optional<std::string> walker_get_mount_points(std::FILE* stream);

void walker_end_mount_points(mount_table_ptr stream);

// Whether a mount is of a pseudo or removable type. The comparison takes as many characters as the entry's type has, so
// the beginning of a listed type, also the empty one, is ignored as well.
bool walker_ignore_mnt_type(const mntent& entry);

}  // namespace mirador
