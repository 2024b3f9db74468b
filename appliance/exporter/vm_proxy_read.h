// SPDX-License-Identifier: Apache-2.0
// Reading an exported file: the bytes of its source, with the overlay laid over them.
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "appliance/exporter/vm_proxy_table.h"
#include "lib/errdesc.h"

namespace mirador {

// Reads up to `size` bytes at `offset` (bytes) into `buf`; *bytes_read never exceeds `size` and is less only at the end
// of the file, or of the overlay where that is all that can be had. Takes no lock, and waits for nobody but to see
// whether the snapshot is still there (snapshot_frozen.h); any number of threads may read one handle. Where the handle
// has a device reader and the settings allow it, a disk is read without what its guest does not use. Bytes of a disk
// that were read and skipped are counted (stats_thr.h), by the device reader in whole sectors. Errors: ESTALE (116) for
// a null handle, for a snapshot that is lost and for a template's disk that is a VM's by now; EIO for a device that
// gives less than it has; the source's number with what the datastore side publishes for the handle's extended-error
// path. A failure that the overlay covers from the read's first byte on is no error.
[[nodiscard]] errdesc_t* vm_proxy_read(char* buf, std::size_t size, off_t offset, const fuse_fh_t* fh,
                                       std::size_t* bytes_read);

// The same, but *bytes_read is less than `size` at the end of the file only: for readers who take any other short count
// for that end. Error besides: that of the range behind the overlay.
[[nodiscard]] errdesc_t* vm_proxy_read_whole(char* buf, std::size_t size, off_t offset, const fuse_fh_t* fh,
                                             std::size_t* bytes_read);

}  // namespace mirador
