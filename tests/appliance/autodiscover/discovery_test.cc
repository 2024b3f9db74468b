// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <sys/wait.h>

#include "appliance/autodiscover/process_check.h"
#include "appliance/autodiscover/vhost.h"
#include "appliance/autodiscover/vmware.h"
#include "lib/clock.h"
#include "lib/tool_paths.h"
#include "lib/walker.h"
#include "tests/lib/temp_dir.h"

namespace mirador {
namespace {

using testing::HasSubstr;

const std::string uuid_line = "uuid.bios = \"56 4d 7a 1b 2c 3d 4e 5f-60 71 82 93 a4 b5 c6 d7\"\n";
const std::string name_line = "displayName = \"web\"\n";
const std::string os_line = "guestOS = \"other\"\n";

std::string disk_lines(const std::string& at, const std::string& file, const std::string& more = "") {
    return at + ".present = \"TRUE\"\n" + at + ".fileName = \"" + file + "\"\n" + more;
}

const std::string whole = uuid_line + name_line + os_line + disk_lines("scsi0:0", "web.vmdk");

class vhost_test : public testing::Test {
  protected:
    ~vhost_test() override { walker_end(); }

    // The error of a record made from a text, "" for none.
    std::string error_of(const std::string& text) {
        record_.reset();
        const errdesc_t* e = vhost_record_new(write_file(path_, text), &record_);
        EXPECT_EQ(record_->err != nullptr, e != nullptr);
        EXPECT_STREQ(e == nullptr ? "" : record_->err->string, e == nullptr ? "" : e->string);
        return e == nullptr ? "" : e->string;
    }

    temp_dir_t dir_;
    const std::string path_ = dir_ / "web.vmx";
    std::unique_ptr<vhost_record_t> record_;
    manual_clock_t clock_{1'000'000'000};
};

TEST_F(vhost_test, TheFirstThingMissingIsTheError) {
    const std::string disk = disk_lines("scsi0:0", "web.vmdk");
    const struct {
        std::string text;
        std::string error;
    } cases[] = {
        {name_line, "invalid uuid for "},
        {"uuid.bios = \"5-6\"\n" + name_line + os_line + disk, "invalid uuid for "},
        {"uuid.bios = \"none\"\n" + name_line + os_line + disk, "invalid uuid for "},
        {"uuid.bios = \"00 00\"\n" + name_line + os_line + disk, "invalid uuid for "},
        {uuid_line + os_line + disk, "invalid name for "},
        {uuid_line + name_line + disk, "invalid operating system for "},
        {uuid_line + name_line + os_line, "no virtual disks for "},
    };
    for (const auto& c : cases)
        EXPECT_EQ(error_of(c.text), c.error + path_);
    EXPECT_EQ(clock_.slept(), 0);
    error_of(whole);
    record_->vdskcount = 2;
    EXPECT_STREQ(vhost_record_validate("p", *record_)->string, "invalid virtual disk 1 for p");
    record_->dirname.clear();
    EXPECT_STREQ(vhost_record_validate("p", *record_)->string, "invalid directory for p");
}

TEST_F(vhost_test, ThirtyTwoDisksAndNotOneMore) {
    std::string text = uuid_line + name_line + os_line;
    for (int i = 0; i < 32; ++i)
        text += disk_lines("scsi" + std::to_string(i / 15) + ":" + std::to_string(i % 15), std::to_string(i) + ".vmdk");
    EXPECT_EQ(error_of(text), "");
    EXPECT_EQ(record_->vdsk[31].name, "31.vmdk");
    EXPECT_EQ(error_of(text + disk_lines("sata0:0", "32.vmdk")), "more than 32 virtual disks for " + path_);
    EXPECT_EQ(record_->vdskcount, 0);
    EXPECT_EQ(record_->name, "web");
}

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

}  // namespace
}  // namespace mirador
