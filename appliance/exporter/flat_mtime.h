// SPDX-License-Identifier: Apache-2.0
// The modification time of a flat disk whose VM uses changed-block tracking. It changes only when tracking has started
// anew and a full copy is needed, so that backup software that compares times copies the disk exactly then; the
// moments are kept in the controller's record of the disk's changed-block file (cbt_vdisk.h).
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

#include "lib/errdesc.h"

namespace mirador {

struct flat_mtime_input_t {
    std::time_t actual_mtime = 0;  // of the disk's file
    std::int64_t st_size = 0;      // bytes that the flat disk reports
    bool cbt_reset_pending = false;
    std::uint32_t cbt_reset_time = 0;       // seconds since the epoch: of the last start of tracking, at least 1
    std::uint32_t cbt_reset_time_prev = 0;  // of the one before; 0: not known
    std::string vm_uuid;
    std::string shadow_path;
};

// The time that the flat disk is to report. It is set in any case: after an error to the best that is known, which a
// client takes for a change rather than not. With a pending reset the record's change ids are forgotten. Errors:
// EINVAL "Invalid path %s"; ERR_INVALID_ARG (1009) for a name that is no flat disk's; the controller's.
[[nodiscard]] errdesc_t* get_flat_file_mtime(const flat_mtime_input_t& input, std::time_t* flat_file_mtime);

}  // namespace mirador
