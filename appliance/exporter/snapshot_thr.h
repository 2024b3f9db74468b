// SPDX-License-Identifier: Apache-2.0
// The snapshot behind an open disk: what an open takes and an eviction gives back.
#pragma once

#include <ctime>
#include <string>

#include "appliance/lib/snapshot.h"
#include "appliance/lib/vm_proxy_header.h"
#include "lib/errdesc.h"

namespace mirador {

// Takes (gives back) a reference to the snapshot of the VM that `header` names, for the exported file `path`; other
// actions are asserted against. Of a VM that cannot be snapshotted nothing is taken: *vmname becomes the header's VM
// UUID when it was empty, and *ctime 0. Any other VM is refused with ERR_NOT_SUPPORTED on SNAPSHOT_CREATE; for
// SNAPSHOT_REMOVE it holds nothing, and that is success.
[[nodiscard]] errdesc_t* snapshot_update(const std::string& path, const std::string& file_shadow_path,
                                         const std::string& master_uuid, snapshot_action_t action,
                                         vm_proxy_header_t* header, std::string* vmname, std::time_t* ctime);

}  // namespace mirador
