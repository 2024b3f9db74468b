// SPDX-License-Identifier: Apache-2.0
// The agent's snapshot methods, each one call in a session of its own (vmware/lib/webservices/ws_session.h, which tells
// the errors; those of the agent come as it raised them: 2, no such snapshot; 114, another task is at work on the VM).
//
// Counts are the agent's, whose word is not taken for more than it can be: text and numbers of any kind are read, what
// is neither counts as 0, and what lies beyond as 0 or ws_max_count. They never turn a call that succeeded into an
// error.
#pragma once

#include <ctime>
#include <limits>
#include <string>
#include <vector>

#include "controller/lib/kestrel_types.h"
#include "lib/errdesc.h"

namespace mirador {

// The largest count told; one can still be added to it.
inline constexpr int ws_max_count = std::numeric_limits<int>::max() - 1;

// A snapshot that the agent lists. Its texts are the hypervisor's: of any length and with any character but zero.
struct ws_snapshot_desc_t {
    std::string name;
    std::time_t ctime = 0;  // creation, seconds since the epoch, cut to 32 bits with sign
    bool quiesced = false;  // made with the guest's file systems at rest
    std::string vmname;
    std::string vmuuid;
};

// Takes a snapshot of the VM; with `quiesce`, the guest brings its file systems to rest before.
[[nodiscard]] errdesc_t* ws_create_snapshot(const ks_hypervisor_config_t& hvc, const std::string& vmname,
                                            const std::string& vmuuid, const std::string& snapshotname, bool quiesce);

// Has the agent see to the snapshot that must be on top of the VM's own before one is taken. *create_count: how many it
// made, 0 when none was needed.
[[nodiscard]] errdesc_t* ws_create_top_snapshot(const ks_hypervisor_config_t& hvc, const std::string& vmname,
                                                const std::string& vmuuid, const std::string& snapshotname,
                                                bool quiesce, int* create_count);

// Removes the VM's snapshots of that name; with `blocking`, waits until they are gone. *remove_count, where it is
// wanted: how many there were.
[[nodiscard]] errdesc_t* ws_remove_snapshot(const ks_hypervisor_config_t& hvc, const std::string& vmname,
                                            const std::string& vmuuid, const std::string& snapshotname, bool blocking,
                                            int* remove_count);

// Appends the hypervisor's snapshots whose names match a regular expression; which kind, and whether it looks at whole
// names, is the agent's. An entry that lacks a member is left out; a reply with any is logged once at level 4, with the
// number. A reply that is no array lists nothing.
[[nodiscard]] errdesc_t* ws_list_snapshot(const ks_hypervisor_config_t& hvc, const std::string& snapshotname_regex,
                                          std::vector<ws_snapshot_desc_t>* list);

}  // namespace mirador
