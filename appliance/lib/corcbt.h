// SPDX-License-Identifier: Apache-2.0
// Changed-block companions of disks: beside "disk-flat.vmdk" (or "disk-rdm.vmdk") stands "disk-corcbt.vmdk", which
// holds only the blocks that changed since the last backup.
#pragma once

#include <cstdint>
#include <string>

#include "lib/errdesc.h"

namespace mirador {

// A companion's size in percent of its disk where the controller has no record of it.
inline constexpr std::uint32_t corcbt_default_size_percent = 5;

// The path of the companion of the flat disk `flat_path`. Error: ERR_INVALID_ARG (1009) "Invalid flat vmdk path" for
// a name that does not end as a flat disk's.
[[nodiscard]] errdesc_t* flat_to_corcbt(const std::string& flat_path, std::string* corcbt_path);

// How large the companion `corcbt_path` of a VM is to appear, in percent of its disk (1 to 100), as the controller's
// first record for the VM's disk of that name tells. Asks the controller, so it blocks. Errors: the controller's, and
// then *percent is untouched.
[[nodiscard]] errdesc_t* get_corcbt_size_percent(const std::string& vm_uuid, const std::string& corcbt_path,
                                                 std::uint32_t* percent);

}  // namespace mirador
