// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/snapshot_thr.h"

#include "lib/cor_assert.h"

namespace mirador {

errdesc_t* snapshot_update(const std::string& path, const std::string&, const std::string&, snapshot_action_t action,
                           vm_proxy_header_t* header, std::string* vmname, std::time_t* ctime) {
    cor_assert(action == SNAPSHOT_CREATE || action == SNAPSHOT_REMOVE);
    if (header->can_snapshot != 0 && action == SNAPSHOT_CREATE)
        return errdesc_set_str(ERR_NOT_SUPPORTED, "snapshot of " + path);
    if (header->can_snapshot != 0)
        return nullptr;
    if (vmname->empty())
        *vmname = header->vm_uuid;
    *ctime = 0;
    return nullptr;
}

}  // namespace mirador
