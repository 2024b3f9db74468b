// SPDX-License-Identifier: Apache-2.0
// Opening a changed-block file: what changed on a disk since the last backup, as a file.
//
// The changed ranges are read from the flat disk through the daemon's own file system, under its loop-file name: that
// open takes and keeps the VM's snapshot, and the reads are counted in the second stream. A set-up therefore waits for
// requests that other threads of the daemon serve, and holds nothing that these may need: table lock and cookie's
// mutex are free meanwhile, only corcbt_mutex is held, so set-ups are made one after another. The cookie can't be
// evicted meanwhile, for its open is counted already.
#pragma once

#include "appliance/exporter/vm_proxy_table.h"
#include "lib/errdesc.h"
#include "lib/file_io.h"

namespace mirador {

// Opens the cookie's device and sets it up first where there is none. Caller holds corcbt_mutex, table lock and the
// cookie's mutex; the last two are released and taken again. A set-up that fails leaves nothing and resets the disk's
// record, so that the next changed-block file holds what changed since the last full copy; a device that cannot be
// opened again is left to the caller, who evicts the cookie.
//
// Errors: EINVAL for a VM that is unknown or not tracked; those of the flat disk's open; of the block-list script, of
// its results (cbt_script.h, cbt_results.h, cbt_check_extents); ERR_UNMATCHED for an unexpected change id; EFBIG when
// more has changed than the file promises to hold, whose record then promises more to the next open; those of files,
// loop devices and mapping; EAGAIN for a disk that has grown meanwhile; ERR_NOT_SUPPORTED while opens are not allowed;
// ERR_CANCELLED at the daemon's end.
[[nodiscard]] errdesc_t* vm_proxy_open_corcbt_file(vm_proxy_cookie_t& cookie, unique_fd* fd) REQUIRES(cookie.mutex);

// Changed-block files need a second thread to serve their own reads. They are allowed at first.
void allow_corcbt_opens(bool allowed);

}  // namespace mirador
