// SPDX-License-Identifier: Apache-2.0
#include "lib/log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "lib/errdesc.h"

namespace mirador {
namespace {

TEST(log, DebugLevelDecidesWhatIsPrinted) {
    set_debug_level(1);
    testing::internal::CaptureStdout();
    ts_dprintf(2, "detail\n");
    ts_dprintf(1, "call %d\n", 7);
    set_debug_level(0);
    ts_dprintf(1, "late\n");
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                testing::MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:]{8}\\.[0-9]{6}: call 7\n"));
}

TEST(log, LinesOfManyThreadsStayWhole) {
    testing::internal::CaptureStdout();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([] {
            for (int i = 0; i < 200; i++) {
                ts_printf("line of %s\n", "two parts");
                _errdesc_print(errdesc_set(EIO), ERRDESC_ERROR);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    std::istringstream out(testing::internal::GetCapturedStdout());
    const std::regex whole("[-0-9]{10} [:0-9]{8}\\.[0-9]{6}: (line of two parts|ERROR \\[thread.* error:5\\] [^:]*)");
    int lines = 0;
    for (std::string line; std::getline(out, line); lines++)
        EXPECT_TRUE(std::regex_match(line, whole)) << line;
    EXPECT_EQ(lines, 4 * 200 * 2);
}

}  // namespace
}  // namespace mirador
