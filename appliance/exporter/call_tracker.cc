// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/call_tracker.h"

#include "lib/log.h"

namespace mirador {

void call_tracker_t::track(const std::string& path) {
    const mutex_lock_t lock(mutex_);
    if (path == path_) {
        count_++;
        return;
    }
    ts_printf("%s: previous path (%s) %s %d consecutive times\n", handler_, path_.c_str(), verb_, count_);
    count_ = 0;
    path_ = path;
}

}  // namespace mirador
