// SPDX-License-Identifier: Apache-2.0
// The controller's record of a changed-block file, under the file's name ("disk-corcbt.vmdk") at its VM:
//
//   changeid       of the last changed-block file that was served: the next one must belong to the same tracking
//   changeid_base  of the last full copy: a changed-block file holds what changed since then
//   changeid_incr  where the controller wants shorter ones: of the last changed-block file that was copied whole
//
// A record is changed by fetching, changing and posting it whole, under one mutex: what is posted never takes back what
// another thread has just noted. Only the controller's URL is locked under it. Records that callers hold are for
// reading.
//
// Errors: those of the controller. Errors of a post come after its second try.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "controller/lib/kestrel_types.h"
#include "lib/errdesc.h"

namespace mirador {

// What stands in a record for a change id that is void.
inline constexpr const char* cbt_uninitialized = "uninitialized";

// Whether a change id of a record says anything: it is there, not empty and not void.
bool cbt_has_changeid(const ks_string_t& changeid);

// The first record of that name; null when the controller has none.
[[nodiscard]] errdesc_t* get_cbt_vdisk(const std::string& vm_uuid, const std::string& vdisk_name,
                                       std::unique_ptr<ks_vdisk_t>* vdisk);

// What is to become of a record, or of a new one where there is none; false: nothing is to be posted.
using cbt_vdisk_change_t = std::function<bool(ks_vdisk_t* vdisk, bool is_new)>;

// Fetches a record, changes it and posts it.
[[nodiscard]] errdesc_t* change_cbt_vdisk(const std::string& vm_uuid, const std::string& vdisk_name,
                                          const cbt_vdisk_change_t& change);

// Notes the change id of a changed-block file that is served: the one before becomes `changeid_prev`. Error besides:
// ERR_INVALID_ARG (1009) without a change id or a name.
[[nodiscard]] errdesc_t* update_cbt_vdisk(const std::string& vm_uuid, const std::string& vdisk_name,
                                          const std::string& changeid);

// Raises the size that the disk's changed-block file promises, in percent of the disk (100 at most); a record that
// promises as much already stays.
[[nodiscard]] errdesc_t* raise_cbt_vdisk_percentage(const std::string& vm_uuid, const std::string& vdisk_name,
                                                    std::uint32_t percent);

// Forgets `changeid_incr`, so that the next changed-block file holds what changed since the last full copy. `vdisk`, if
// given, is the record as it was fetched before; nothing is asked when it shows that there is nothing to forget.
// Failures are logged.
void reset_cbt_vdisk(const std::string& vm_uuid, const std::string& vdisk_name, const ks_vdisk_t* vdisk);

// The same for the changed-block file that is exported as `path`.
void reset_cbt_vdisk_path(const std::string& vm_uuid, const std::string& path);

}  // namespace mirador
