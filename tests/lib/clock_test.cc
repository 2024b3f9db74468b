// SPDX-License-Identifier: Apache-2.0
#include "lib/clock.h"

#include <gtest/gtest.h>

#include <chrono>

namespace mirador {
namespace {

TEST(clock, ManualClockMovesOnlyWhenDriven) {
    {
        manual_clock_t clock(1000);
        clock_sleep(300);
        clock.advance(50);
        EXPECT_EQ(clock_now(), 1350);
        EXPECT_EQ(clock.slept(), 300);
    }
    EXPECT_NEAR(static_cast<double>(clock_now()), static_cast<double>(std::time(nullptr)), 1);
}

TEST(clock, FastClockSleepsAndCountsInItsOwnTime) {
    const auto start = std::chrono::steady_clock::now();
    fast_clock_t clock(1000);
    const std::time_t before = clock_now();
    clock_sleep(100);
    EXPECT_GE(clock_now() - before, 99);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(100));
    EXPECT_LT(took, std::chrono::seconds(20));
}

}  // namespace
}  // namespace mirador
