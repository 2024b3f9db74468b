// SPDX-License-Identifier: Apache-2.0
// The controller thread, which keeps the exported inventory in step with the controller, and what the whole exporter
// shares about its shadow tree: the root, the count of blocks that all proxy headers describe, and the vendor's brand.
//
// The thread waits until the controller announces a new generation of its inventory, runs a cycle (cnt_cycle.h) and
// tells the controller that it has taken the generation over. It holds the state's mutex for its whole life; others
// touch only `interrupt`, `state` and the block count, without it.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <thread>

#include "lib/thread_annotations.h"

namespace mirador {

enum cnt_state_t : std::uint32_t {
    CNT_STATE_UNKNOWN = 0,
    CNT_STATE_STARTING = 1,
    CNT_STATE_RUNNING = 2,
    CNT_STATE_STOPPING = 3,
    CNT_STATE_STOPPED = 4,
};

struct cnt_thr_state_t {
    static constexpr std::uint32_t version_value = 0xaaeeeeee;
    static constexpr std::uint32_t magic_value = 0xbbeeeeee;

    std::uint32_t version = 0;
    std::uint32_t magic = 0;
    mutex_t mutex;
    std::atomic<cnt_state_t> state = CNT_STATE_UNKNOWN;
    std::thread thr;
    std::atomic<int> interrupt = 0;                // not 0: a wait ends early
    std::atomic<std::uint64_t> gen = 0;            // completed cycles
    std::string namespaceroot;                     // the shadow root
    std::atomic<std::int64_t> fs_blocks_used = 0;  // 512-byte blocks; never negative
    std::int64_t fs_sectors_per_block = 0;         // of the shadow root's file system
};

enum cnt_brand_t : std::uint32_t { BRAND_CORVANTIS = 0, BRAND_NEXA = 1 };

// Fills the state for a shadow tree at `namespaceroot` (statvfs of it must succeed: asserted), sets the open-file table
// up and reads the vendor's brand. Once per process, before FUSE serves. `count_existing`: the tree may hold headers
// already, and the count of blocks starts with their sum; else it starts at 0.
void cnt_thr_set_up(const std::string& namespaceroot, bool count_existing);

// Starts the thread, after cnt_thr_set_up.
void cnt_thr_start();

// Stops the thread, and with it those of the hypervisors, and returns when they have ended. A controller that does not
// answer is given up after 10 seconds, for good.
void cnt_thr_stop();

// The shadow root given to cnt_thr_set_up.
const std::string& cnt_thr_namespaceroot();

// Adds to and subtracts from the count of 512-byte blocks; asserts that it is never negative.
void inc_fs_blocks_used(std::int64_t blocks);
void dec_fs_blocks_used(std::int64_t blocks);

// The count in blocks of the shadow root's file system.
std::int64_t get_fs_blocks_used();

// Reads the vendor's brand: BRAND_NEXA when a line of the brand file names vendor and brand; a missing file leaves the
// brand as it was.
void set_vendor_brand_name();
cnt_brand_t vendor_brand_name();

}  // namespace mirador
