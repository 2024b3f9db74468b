// SPDX-License-Identifier: Apache-2.0
#include "appliance/autodiscover/process_check.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "lib/clock.h"
#include "lib/tool_paths.h"
#include "tests/lib/temp_dir.h"

namespace mirador {
namespace {

using testing::HasSubstr;

// The answer of a check, and what it logged.
template <typename check_t>
std::pair<bool, std::string> asked(check_t check) {
    testing::internal::CaptureStdout();
    const bool answer = check();
    return {answer, testing::internal::GetCapturedStdout()};
}

TEST(process_check, OnlyTheToolsOwnNoIsANo) {
    const temp_dir_t dir;
    const fast_clock_t clock(20);
    const std::string absent = dir / "absent";
    struct {
        std::string script;  // empty: there is none
        bool job;
        bool controller;
        const char* job_log;
        const char* controller_log;
    } const cases[] = {
        {"echo 17\n", true, false, "", ""},
        {"echo the controller is running\n", true, true, "", ""},
        {"echo the controller is stopped\n", true, false, "", ""},
        {"echo running; exit 1\n", false, false, "", ""},
        {"printf run; sleep 0.1; printf ning\n", true, true, "", ""},
        {"head -c 300000 /dev/zero; echo running\n", true, false, "", ""},  // beyond what is looked at
        {"kill -9 $$\n", true, true, "Failed to read job status.", "Failed to read controller's status."},
        {"exit 1\n", true, true, "Failed to read job status.", "Failed to read controller's status."},
        {"", true, true, "Failed to read job status.", "Failed to read controller's status."},
    };
    for (const auto& c : cases) {
        const std::string tool = c.script.empty() ? absent : write_script(dir / "tool", c.script);
        tool_paths().pgrep = tool_paths().controller_watchdog = tool;
        const auto [job, job_log] = asked([] { return job_started_and_running("run-controller"); });
        const auto [controller, controller_log] = asked(corcontroller_is_running);
        EXPECT_EQ(job, c.job) << c.script;
        EXPECT_EQ(controller, c.controller) << c.script;
        EXPECT_THAT(job_log, HasSubstr(c.job_log));
        EXPECT_EQ(job_log.empty(), c.job_log[0] == '\0') << job_log;
        EXPECT_THAT(controller_log, HasSubstr(c.controller_log));
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << c.script;  // nobody is left behind
    }
    tool_paths().pgrep = absent;
    const auto [answer, log] = asked([] { return job_started_and_running(""); });
    EXPECT_TRUE(answer);
    EXPECT_THAT(log, HasSubstr("Name of job is required."));
    EXPECT_THAT(log, HasSubstr("error:1009"));
    tool_paths() = {};
}

TEST(process_check, NoToolIsWaitedForWithoutEnd) {
    const temp_dir_t dir;
    const fast_clock_t clock(200);
    struct {
        const char* script;
        bool controller;
        std::time_t longest;
    } const cases[] = {
        {"while :; do echo running; done\n", false, 240},
        {"sleep 5 & echo running\n", true, 240},  // its child holds the pipe; 1,000 seconds by this clock
    };
    for (const auto& c : cases) {
        tool_paths().controller_watchdog = write_script(dir / "tool", c.script);
        const std::time_t begin = clock_now();
        EXPECT_EQ(corcontroller_is_running(), c.controller) << c.script;
        EXPECT_LE(clock_now() - begin, c.longest) << c.script;
    }
    tool_paths() = {};
}

TEST(process_check, TheNameReachesTheTool) {
    const temp_dir_t dir;
    const fast_clock_t clock(20);
    tool_paths().pgrep = write_script(dir / "tool", "echo \"$#:$1\"; test \"$#:$1\" = '1:run controller'\n");
    EXPECT_TRUE(job_started_and_running("run controller"));
    EXPECT_FALSE(job_started_and_running("run"));
    tool_paths() = {};
}

}  // namespace
}  // namespace mirador
