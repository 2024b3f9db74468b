// SPDX-License-Identifier: Apache-2.0
// Time: "now", sleeping and bounded waits. Every wait of the program goes through here, so that tests can put a
// hand-driven clock in place and pass a 300-second wait in no time.
#pragma once

#include <condition_variable>
#include <ctime>

#include "lib/thread_annotations.h"

namespace mirador {

// Seconds since the epoch.
std::time_t clock_now();

// Sleeps for whole seconds; an interrupted sleep resumes with the time that remains.
void clock_sleep(unsigned seconds);

// The same between two looks at something real, a child process say, which a manual clock would outrun.
void clock_poll(unsigned seconds);

// Waits until `cond` is notified, `seconds` at most; may end early for no reason. `mutex` is free meanwhile.
void clock_wait(std::condition_variable_any& cond, mutex_t& mutex, unsigned seconds) REQUIRES(mutex);

// A clock that a test drives: while one lives, clock_now() reads it; clock_sleep(), clock_poll() and clock_wait() move
// it forward at once. One that `stands` is moved by clock_sleep() alone: the other two take moments, so that threads
// that live on bounded waits look as often as they like at the same second. One at a time; construct and destroy it on
// the test's main thread.
class manual_clock_t {
  public:
    explicit manual_clock_t(std::time_t now, bool stands = false);
    ~manual_clock_t();
    manual_clock_t(const manual_clock_t&) = delete;
    manual_clock_t& operator=(const manual_clock_t&) = delete;

    void advance(std::time_t seconds);
    // Seconds that clock_sleep() was asked for since construction.
    std::time_t slept() const;
};

// Runs the clock `factor` (at least 1) times as fast as the machine's while one lives: for tests whose waits are for
// something real, a child process say, which a manual clock would outrun. One at a time, not beside a manual clock.
class fast_clock_t {
  public:
    explicit fast_clock_t(unsigned factor);
    ~fast_clock_t();
    fast_clock_t(const fast_clock_t&) = delete;
    fast_clock_t& operator=(const fast_clock_t&) = delete;
};

}  // namespace mirador
