// SPDX-License-Identifier: Apache-2.0
// The block-list script: asks a hypervisor which blocks of a disk changed since a change id, and for the change id of
// the disk as it is now. It writes what it learns into a results file (cbt_results.h).
//
// Any thread may run it and waits for its end, 600 seconds at most; a caller may hold the table lock and a cookie's
// mutex. Nothing is locked here.
#pragma once

#include <cstdint>
#include <string>

#include "controller/lib/kestrel_types.h"
#include "lib/errdesc.h"

namespace mirador {

// The script's own exit codes, which arrive as error numbers.
inline constexpr errnum_t cbt_no_changeid = 5;     // the disk has no change id
inline constexpr errnum_t cbt_needs_reset = 8;     // tracking must start anew
inline constexpr int cbt_script_time_limit = 600;  // seconds

struct cbt_request_t {
    std::string hv_name;
    std::string vm_uuid;
    std::string vmdk_path;  // the disk's descriptor, by any of its paths
    std::string dm_name;    // unique: names the results file
    bool changeid_only = false;
    std::int64_t size = 0;              // of the flat disk, bytes
    const ks_vdisk_t* vdisk = nullptr;  // changes are asked for since its change ids; null: since ever
};

// Runs the script. *results_path, "<directory for temporary files>/<dm_name>.query_results", is set in any case: the
// caller removes that file, unless `cbt_debug_enabled` is set. The hypervisor's password is in the script's environment
// and nowhere else. Errors: those of the controller, which is asked for the hypervisor; errno when the file cannot be
// made; the script's exit code, cbt_no_changeid and cbt_needs_reset among them, or errno for one that is no program;
// EINVAL when a signal ended it; ETIME for one that took too long and ERR_CANCELLED at the daemon's end, killed in both
// cases. A 5 or 8 that is not the script's is ERR_IO (1014).
[[nodiscard]] errdesc_t* cbt_get_block_list(const cbt_request_t& request, std::string* results_path);

// Removes a work file, unless `cbt_debug_enabled` is set. A missing one is none.
void cbt_remove_work_file(const std::string& path);

// The daemon ends: scripts are killed, within a second, and no new one is begun.
void cbt_script_hurry();
bool cbt_hurries();

// For tests of what the daemon does at its end.
void _cbt_script_unhurry();

}  // namespace mirador
