// SPDX-License-Identifier: Apache-2.0
// The statistics thread, which tells the controller how much was read and skipped of each exported file (object
// "vmstats"), every 15 seconds, and single figures at once.
//
// Reads, opens and evictions call from here without waiting: counters stand in a list of their own (stats_list.h) and
// figures in a queue, and the thread alone talks to the controller. What fails is sent again in the next pass, with
// what was counted meanwhile; no byte is lost but when the controller does not answer at the daemon's end.
//
// The thread holds the mutex of its state during a whole pass, requests included, and no other; only
// stats_thr_lock() waits for it.
#pragma once

#include <cstdint>
#include <string>

#include "appliance/lib/corcbt.h"

namespace mirador {

enum stats_state_t : std::uint32_t {
    STATS_THR_STATE_UNKNOWN = 0,
    STATS_THR_STATE_STARTING = 1,
    STATS_THR_STATE_RUNNING = 2,
    STATS_THR_STATE_STOPPING = 3,
    STATS_THR_STATE_STOPPED = 4,
};

// From now on the first count or figure starts the thread. Without it (a daemon without controller) nothing is counted.
void stats_thr_enable();

// Starts the thread, unless it runs.
void stats_thr_start();

// Has the thread send what is left, once, and returns when it has ended. Waits 10 seconds for the controller, then
// gives up all that it is asked. Nothing is counted any more, and no later count starts the thread again.
void stats_thr_stop();

// Keeps passes from beginning; waits for one under way, so for the controller.
void stats_thr_lock();
void stats_thr_unlock();

// Counts a read of the exported file `path` (bytes); `sr2`: under its loop-file name.
void stats_thr_update_stats(const std::string& path, std::int32_t bytes_read, std::int32_t bytes_skipped, bool sr2);

// The file was closed: it is told once more and then forgotten, unless it is read again.
void stats_thr_close_stats(const std::string& path, bool sr2);

// Has the sizes in a changed-block file sent; of several that wait for one path the latest. Null is logged and sends
// nothing.
void stats_thr_update_cbt(const std::string& path, const cbt_file_header_t* header);

// Has the size of the flat file (bytes) sent, likewise.
void stats_thr_update_flat_size(const std::string& path, std::int64_t size);

}  // namespace mirador
