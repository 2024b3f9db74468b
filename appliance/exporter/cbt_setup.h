// SPDX-License-Identifier: Apache-2.0
// Making the device behind a changed-block file: the disk is bound, what has changed on it is asked for, head, ranges
// and padding are put together.
//
// A set-up waits for requests to the daemon's own file system, so its caller holds nothing that serving them may need
// (cbt_open.h). Nothing of it is a cookie's.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "appliance/exporter/cbt_device.h"
#include "appliance/lib/corcbt.h"
#include "appliance/lib/vm_proxy_header.h"
#include "controller/lib/kestrel_types.h"
#include "lib/errdesc.h"

namespace mirador {

struct cbt_setup_t {
    // The caller's.
    std::string path;  // exported
    std::string shadow_path;
    vm_proxy_header_t header{};  // becomes what it is once the disk is bound, and with it frozen
    std::string disk_name;       // the changed-block file's, by which the controller knows its record

    std::string export_flat;  // the disk's path below the export root
    std::int64_t flat_size = 0;
    std::string dm_name;
    std::unique_ptr<ks_vm_config_t> vm;
    std::unique_ptr<ks_vdisk_t> vdisk;  // null: the controller has no record
    cbt_extent_list_t extents;
    std::string changeid;  // of the disk as it is now; empty: none was told
    std::int64_t corcbt_file_size = 0;
    std::shared_ptr<cbt_device_t> device = std::make_shared<cbt_device_t>();
};

// Makes the device. After an error it is to be undone. Errors: those of vm_proxy_open_corcbt_file (cbt_open.h).
[[nodiscard]] errdesc_t* cbt_set_up(cbt_setup_t* setup);

// Notes the change id of a device that is served from now on, and has the file's attributes looked at again. Errors:
// the controller's.
[[nodiscard]] errdesc_t* cbt_note_changeid(const cbt_setup_t& setup);

// Takes apart what there is and resets the disk's record, so that the next changed-block file holds what changed since
// the last full copy.
void cbt_undo(cbt_setup_t* setup);

}  // namespace mirador
