// SPDX-License-Identifier: Apache-2.0
#include "lib/clock.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>

#include "lib/cor_assert.h"

namespace mirador {
namespace {

std::atomic<bool> _manual = false;
std::atomic<std::time_t> _manual_now = 0;
std::atomic<std::time_t> _manual_slept = 0;
std::atomic<bool> _manual_stands = false;

constexpr std::int64_t second_ns = 1'000'000'000;

std::atomic<std::int64_t> _factor = 1;
std::atomic<std::int64_t> _fast_since_ns = 0;

std::int64_t machine_now_ns() {
    timespec now{};
    cor_assert(clock_gettime(CLOCK_REALTIME, &now) == 0);
    return now.tv_sec * second_ns + now.tv_nsec;
}

}  // namespace

std::time_t clock_now() {
    if (_manual)
        return _manual_now;
    const std::int64_t now_ns = machine_now_ns();
    return (now_ns + (_factor - 1) * (now_ns - _fast_since_ns)) / second_ns;
}

void clock_sleep(unsigned seconds) {
    if (_manual) {
        _manual_now += seconds;
        _manual_slept += seconds;
        return;
    }
    const std::int64_t rest_ns = seconds * second_ns / _factor;
    timespec rest{rest_ns / second_ns, rest_ns % second_ns};
    while (nanosleep(&rest, &rest) != 0)
        cor_assert(errno == EINTR);
}

void clock_poll(unsigned seconds) {
    constexpr timespec rest{0, 5'000'000};
    if (_manual && _manual_stands)
        (void)nanosleep(&rest, nullptr);
    else
        clock_sleep(seconds);
}

void clock_wait(std::condition_variable_any& cond, mutex_t& mutex, unsigned seconds) {
    if (_manual && _manual_stands)
        cond.wait_for(mutex, std::chrono::milliseconds(1));
    else if (_manual)
        clock_sleep(seconds);
    else
        cond.wait_for(mutex, std::chrono::nanoseconds(seconds * second_ns / _factor));
}

manual_clock_t::manual_clock_t(std::time_t now, bool stands) {
    cor_assert(!_manual && _factor == 1);
    _manual_now = now;
    _manual_slept = 0;
    _manual_stands = stands;
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

fast_clock_t::fast_clock_t(unsigned factor) {
    cor_assert(factor >= 1);
    cor_assert(!_manual && _factor == 1);
    _fast_since_ns = machine_now_ns();
    _factor = factor;
}

fast_clock_t::~fast_clock_t() {
    _factor = 1;
}

}  // namespace mirador
