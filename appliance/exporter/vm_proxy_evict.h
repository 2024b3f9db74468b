// SPDX-License-Identifier: Apache-2.0
// Choosing and tearing down cookies that nobody has open. Table, cookies and locks: vm_proxy_table.h.
#pragma once

#include <optional>
#include <string>

#include "appliance/exporter/vm_proxy_table.h"
#include "lib/errdesc.h"

namespace mirador {

// A cookie must have stayed unused for longer than this many seconds to be a victim, unless eviction is forced.
inline constexpr int evict_min_idle = 30;

// Takes the longest unused cookie out of the table (list_mutex held) and returns it with its mutex locked. With
// `hv_name` only flat and changed-block exports of that hypervisor qualify. Error 24: there is none.
[[nodiscard]] errdesc_t* vm_proxy_take_victim(bool force, const std::optional<std::string>& hv_name, cookie_ptr* victim)
    REQUIRES(vm_proxy_open_list().list_mutex);

// Evicts one cookie: takes a victim and tears it down. Errors: 24, or the teardown's.
[[nodiscard]] errdesc_t* vm_proxy_evict_intern(bool force, bool check_vmdk_ref,
                                               const std::optional<std::string>& hv_name);

// The idle pass: under the table lock evicts one cookie, if the table holds any, waiting until its extent file is no
// longer referenced. `force`: one that was used a moment ago qualifies as well.
[[nodiscard]] errdesc_t* vm_proxy_evict(bool force);

// Releases what a cookie holds: for a flat disk the device reader, the chain's volume groups, partitions and mappings
// (failures logged at level 3), then its use of the VM's snapshot; for a changed-block file its device, then its record
// is reset; nothing for other kinds. `check_vmdk_ref`: wait for a flat disk, before the snapshot is given back, 60
// seconds at most, until the extended attribute "user.vmdk_ref" of the head's first extent file reads 0.
[[nodiscard]] errdesc_t* vm_proxy_do_evict(vm_proxy_cookie_t& cookie, bool check_vmdk_ref) REQUIRES(cookie.mutex);

// Waits until "user.vmdk_ref" of `path` reads 0: up to 60 further looks a second apart. An attribute that cannot be
// read ends the wait at once, as does the daemon's end.
void check_n_wait_for_zero_vmdk_ref(const std::string& path);

// Evicts every cookie, at shutdown; asserts that none is left. Failures are logged at level 3.
void vm_proxy_release_all();

}  // namespace mirador
