// SPDX-License-Identifier: Apache-2.0
// Loop devices: binding a file to the next free one and releasing it.
//
// Loop devices are shared by the whole machine; any process may take the number that the kernel has just offered, so a
// binding that loses the race takes the next number. Where the kernel has made a device but /dev has no node for it (a
// container's own /dev), the node is made here and stays.
#pragma once

#include <string>

#include "lib/errdesc.h"

namespace mirador {

// The usual bound, in seconds, on finding a free loop device.
inline constexpr int loopdev_timeout = 600;

// Binds the file `path` to a free loop device, `readonly` or not, and stores the device's path ("/dev/loop7") in
// *loopdev. The binding lasts until it is released, whoever opens and closes the device. Errors: errno with `path` or
// the device's path; EMFILE (24) with "Cannot get a free loop device for %s: %s" when the kernel has none left; ETIME
// (62) with "Cannot get a free loop device for %s in %d seconds".
[[nodiscard]] errdesc_t* vdsk_assign_next_loop_dev(const std::string& path, bool readonly, int timeout_s,
                                                   std::string* loopdev);

// The same for a file that is open already; `path` only names it in texts and in the device's status. The descriptor
// stays the caller's.
[[nodiscard]] errdesc_t* vdsk_assign_next_loop_dev_fd(int fd, const std::string& path, bool readonly, int timeout_s,
                                                      std::string* loopdev);

// Releases a loop device. One that is in use is released by the kernel as soon as its last user closes it; one that is
// bound to nothing is released already: both are success. Errors: errno with `loopdev`.
[[nodiscard]] errdesc_t* vdsk_release_loop_dev(const std::string& loopdev);

// The same two for changed-block exports, with log lines while their debugging is on: bind read-only within the usual
// bound, and release.
[[nodiscard]] errdesc_t* define_loop_dev(const std::string& path, std::string* loopdev);
[[nodiscard]] errdesc_t* release_loop_dev(const std::string& loopdev);

}  // namespace mirador
