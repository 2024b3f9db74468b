// SPDX-License-Identifier: Apache-2.0
// Makes the virtual disk header of an exported flat disk from plain values, so that whoever exports needs to tell only
// what it knows about the disk.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

#include "appliance/lib/cor_vdsk_header.h"

namespace mirador {

struct vdsk_header_input_t {
    // From the descriptor of the chain's base (the last one).
    std::uint32_t cid = 0;
    std::uint32_t createtype = 0;  // createtype_t
    std::size_t extent_count = 0;
    bool thin_provisioned = false;
    bool change_tracking = false;  // the descriptor names a change-tracking file
    std::string disk_uuid;         // any text form, quotes allowed

    // From the shadow file.
    std::string path;  // of the disk, as the appliance reaches it
    std::string vm_uuid;
    std::string hv_name;
    std::int64_t size = 0;  // bytes that the exported file reports

    std::string vm_name;
    std::string change_id;          // "<uuid>/<number>"; empty: not known
    std::time_t snapshot_time = 0;  // seconds since the epoch
};

// The header, version 2. The size field counts sectors in 32 bits: disks of 2 TiB and more wrap. A UUID text that is
// malformed gives a UUID of zeros. Datastore id and directory are taken from a path below "/vmfs/volumes/" and are
// empty for any other. Texts that do not fit the record are cut. `change_id` counts only with `change_tracking`.
std::unique_ptr<cor_vdsk_header_t> vdsk_header_build(const vdsk_header_input_t& input);

}  // namespace mirador
