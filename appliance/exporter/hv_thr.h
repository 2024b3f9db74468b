// SPDX-License-Identifier: Apache-2.0
// One thread for each hypervisor that the controller lists: it updates the hypervisor's VMs whenever a cycle of the
// controller thread gave it work and the services that it depends on run. A hypervisor that is no longer listed loses
// its thread and its shadow directory.
//
// All functions are the controller thread's alone: the list has no lock. A hypervisor's thread holds its own mutex but
// while it waits for work, so the controller thread, which never waits for it, sets `work`, `gen` and `state` without.
#pragma once

#include <cstdint>
#include <string>

#include "controller/lib/kestrel_types.h"
#include "lib/errdesc.h"

namespace mirador {

// Tells the hypervisor's thread that cycle `gen` lists it and that there is work; starts the thread if there is none.
// Error: EINVAL for a host name that can be no directory's name below `root_path`.
[[nodiscard]] errdesc_t* hv_thr_update(const ks_hypervisor_config_t& hvc, std::uint64_t gen,
                                       const std::string& root_path);

// Stops the threads of the hypervisors that cycle `gen` did not list. Returns when they have ended.
void hv_thr_stop_old(std::uint64_t gen);

// Stops all threads.
void hv_thr_stop_all();

}  // namespace mirador
