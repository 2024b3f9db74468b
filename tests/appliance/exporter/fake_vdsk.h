// SPDX-License-Identifier: Apache-2.0
// Stands in for the mounter in tests of the exporter: a disk's "device" is a file that the test names, and every set-up
// and teardown is recorded. Linking fake_vdsk.cc replaces the mounter's own functions.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "lib/errdesc.h"

namespace mirador {

struct fake_vdsk_t {
    std::string device;                // what a successful set-up presents as block device
    std::string extent_path;           // and as first extent file of the head
    std::deque<errnum_t> failures;     // errors of the next set-ups, 0 for a success
    errnum_t partitions_failure = 0;   // error of every partition look-up
    std::vector<std::string> set_ups;  // descriptor paths, in order
    std::atomic<int> alive = 0;        // disks set up and not torn down; a teardown may come from any thread
};

// The one instance, and a fresh one in its place: the first thing that a test does.
fake_vdsk_t& fake_vdsk();
void fake_vdsk_reset();

}  // namespace mirador
