// SPDX-License-Identifier: Apache-2.0
// Reading ahead on a disk's device. The kernel's read-ahead knows nothing of what the guest uses: from each piece in
// use it would run megabytes into what is free. So it is switched off, and a reader that goes through the disk has
// only what is in use fetched before it comes there.
//
// The disk is divided into windows. Who reads across the beginning of one, in a request as large as those of a reader
// that goes on, has the sectors in use of the next one fetched. Nothing is remembered between requests, so any number
// of threads may read.
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "appliance/lib/cordev_io.h"

namespace mirador {

inline constexpr off_t cor_dev_window = 2 << 20;                  // bytes
inline constexpr std::size_t cor_dev_least_going_on = 64 * 1024;  // bytes in a request; smaller ones fetch nothing

// Switches the kernel's read-ahead off for a device.
void cor_dev_no_kernel_ahead(int fd);

// To be called with each request, before it is served: `size` bytes (more than 0) at `offset`, all on the device. What
// cannot be fetched is not; the read that comes there tells why.
void cor_dev_read_ahead(const cor_dev_desc_t& pdev, std::size_t size, off_t offset);

}  // namespace mirador
