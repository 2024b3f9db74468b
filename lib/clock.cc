// SPDX-License-Identifier: Apache-2.0
#include "lib/clock.h"

#include <atomic>
#include <cerrno>

#include "lib/cor_assert.h"

namespace mirador {
namespace {

std::atomic<bool> _manual = false;
std::atomic<std::time_t> _manual_now = 0;
std::atomic<std::time_t> _manual_slept = 0;

}  // namespace

std::time_t clock_now() {
    return _manual ? _manual_now.load() : std::time(nullptr);
}

void clock_sleep(unsigned seconds) {
    if (_manual) {
        _manual_now += seconds;
        _manual_slept += seconds;
        return;
    }
    timespec rest{static_cast<std::time_t>(seconds), 0};
    while (nanosleep(&rest, &rest) != 0)
        cor_assert(errno == EINTR);
}

manual_clock_t::manual_clock_t(std::time_t now) {
    cor_assert(!_manual);
    _manual_now = now;
    _manual_slept = 0;
    _manual = true;
}

manual_clock_t::~manual_clock_t() {
    _manual = false;
}

void manual_clock_t::advance(std::time_t seconds) {
    _manual_now += seconds;
}

std::time_t manual_clock_t::slept() const {
    return _manual_slept;
}

}  // namespace mirador
