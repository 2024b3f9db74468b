// SPDX-License-Identifier: Apache-2.0
// Change ids, "<tracking>/<number>": the number rises with each snapshot of a disk, and the part before it is another
// one as soon as tracking has started anew, when what changed before is no longer known.
#pragma once

#include <string>

#include "appliance/exporter/vm_proxy_table.h"
#include "controller/lib/kestrel_types.h"
#include "lib/errdesc.h"

namespace mirador {

// Whether the change id that a changed-block file brought is one that the disk's record expects: any without a record
// or without an expected id; the same id; the same but for the last character of the received one; another one of the
// same tracking. Otherwise, and always with `err_no_changeid` (none was to be had), the controller is told that
// tracking must start anew, unless it knows, and the operator by an alert. Error then: ERR_UNMATCHED (1005) "Unexpected
// new changeid".
[[nodiscard]] errdesc_t* check_cbt_changeid(const std::string& vm_uuid, const std::string& disk_name,
                                            const std::string& received, const ks_vdisk_t* vdisk,
                                            const ks_vm_config_t& vmc, bool err_no_changeid);

// Posts the controller the order to start a VM's tracking anew. Errors: the controller's.
[[nodiscard]] errdesc_t* post_cbt_reset_event(const std::string& vm_uuid);

// The change id that belongs to a full copy of a flat disk whose snapshot stands: the one that the record of its
// changed-block file has as base, else the disk's present one, which becomes the base. Empty for a VM without tracking
// and for a disk that has none. Errors: those of cbt_get_block_list, but for cbt_no_changeid, and of
// cbt_process_list.
[[nodiscard]] errdesc_t* get_cbt_changeid(const vm_proxy_cookie_t& cookie, std::string* changeid)
    REQUIRES(cookie.mutex);

}  // namespace mirador
