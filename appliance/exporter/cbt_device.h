// SPDX-License-Identifier: Apache-2.0
// The block device behind a changed-block export: the file's head, the changed ranges of the flat disk in their order,
// and zeros up to the promised size, each part on a loop device of its own.
#pragma once

#include <cstdint>
#include <string>

#include "appliance/lib/corcbt.h"
#include "appliance/mounter/vdsk.h"
#include "lib/errdesc.h"

namespace mirador {

// The device and what it is made of. It belongs to the cookie and to every handle that reads from it, and is taken
// apart with the last of them: the mapping, the loop devices over disk, head and zeros, the chain. A step that fails is
// logged at level 3 and the others still run. Waits for no answer of the daemon's own file system but for reads that
// are on their way, which take no lock.
struct cbt_device_t {
    cbt_device_t() = default;
    cbt_device_t(const cbt_device_t&) = delete;
    cbt_device_t& operator=(const cbt_device_t&) = delete;
    ~cbt_device_t();

    std::string cbt_main_loop_dev;  // over the flat disk, by its loop-file name below the daemon's own mount
    std::string cbt_hdr_loop_dev;
    std::string cbt_zero_loop_dev;  // empty: nothing is missing
    vdskdesc_t vdskdesc;            // the mapping over the three, and the chain of the disk
};

// Writes the table and loads it as the device `dm_name`. Both loop devices that it needs must be there (asserted); one
// of zeros is made if the file is smaller than `promised` bytes, which it must not exceed (asserted). Extents are taken
// as checked. Errors: those of make_cbt_zero_dev, of the table's file and of vdsk_load_mapping; whatever there is then
// is the device's and goes with it.
[[nodiscard]] errdesc_t* make_cbt_dm_device(const cbt_file_header_t& header, const cbt_extent_list_t& extents,
                                            std::int64_t promised, const std::string& dm_name, cbt_device_t* device);

}  // namespace mirador
