// SPDX-License-Identifier: Apache-2.0
// One cycle of the controller thread: the controller's folders, hypervisors and VMs become those of the exporter, and
// what the cycle did not meet goes.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "appliance/exporter/user_folders.h"

namespace mirador {

struct cnt_cycle_t {
    std::string root;               // the shadow root
    std::uint64_t gen = 0;          // number of the cycle: what it meets bears it
    std::function<bool()> goes_on;  // whether the thread still runs; asked where a cycle may take long
};

// Runs a cycle; failures are logged and harm nothing but what they are about. False when the hypervisors cannot be had:
// their threads are stopped, and nothing else has happened.
[[nodiscard]] bool cnt_cycle_run(const cnt_cycle_t& cycle, user_folders_t* folders);

}  // namespace mirador
