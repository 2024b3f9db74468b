// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/cbt_script.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <optional>
#include <thread>

#include "appliance/lib/registry.h"
#include "controller/lib/controller_url.h"
#include "lib/clock.h"
#include "tests/lib/error_number.h"
#include "tests/support/fake_controller.h"

namespace mirador {
namespace {

using testing::HasSubstr;

class cbt_script_test : public testing::Test {
  protected:
    cbt_script_test() {
        tool_paths().tmp_dir = dir_.path();
        controller_.answer("hvconfig", R"([{"hostname": "esx1", "login_name": "root", "password": "pass word",)"
                                       R"( "hv_port": 4443}])");
        get_reg_settings()->publish_names(
            {.appliance_uuid = "appliance", .master_uuid = "master", .vendor_id = "vendor"});
        say("exit 0");
    }
    ~cbt_script_test() override {
        get_reg_settings()->cbt_debug_enabled = false;
        _cbt_script_unhurry();
    }

    // What the script does.
    void say(const std::string& body) {
        tool_paths().cbt_getblocklist = write_script(dir_ / "script", "cd " + dir_.path() + "\n" + body + "\n");
    }

    // Runs the script; the results of the run before are gone.
    errnum_t run() {
        if (!results_path_.empty())
            cbt_remove_work_file(results_path_);
        const errdesc_t* e = cbt_get_block_list(request_, &results_path_);
        error_text_ = e == nullptr ? "" : e->string;
        return number_of(e);
    }

    const temp_dir_t dir_;
    fake_controller_t& controller_ = fake_controller_t::fresh(controller_get_url);
    cbt_request_t request_{.hv_name = "esx1",
                           .vm_uuid = "564d0001",
                           .vmdk_path = "/vmfs.direct/volumes/ds1/vm/my disk.vmdk",
                           .dm_name = "cbt-1",
                           .changeid_only = false,
                           .size = 1LL << 41,
                           .vdisk = nullptr};
    std::string results_path_;
    std::string error_text_;
};

TEST_F(cbt_script_test, IsToldAllButThePasswordByItsArguments) {
    say(R"(printf '%s|' "$@" > arguments; /bin/cat /proc/$$/environ > environment
           /usr/bin/stat -c '%a %s' cbt-1.query_results > mode)");
    EXPECT_EQ(run(), 0) << error_text_;
    EXPECT_EQ(read_file(dir_ / "arguments"),
              "--server|esx1|--portnumber|4443|--username|root|--password|******|--vmuuid|564d0001|--vmdkpath|"
              "/vmfs/volumes/ds1/vm/my disk.vmdk|--vmdksize|2199023255552|--changeid_only|n|--resultsfile|" +
                  dir_.path() + "/cbt-1.query_results|--vendor_id|vendor|--appliance_uuid|appliance|");
    EXPECT_EQ(read_file(dir_ / "environment"), std::string("password=pass word") + '\0');
    EXPECT_EQ(read_file(dir_ / "mode"), "600 0\n");
    EXPECT_EQ(results_path_, dir_ / "cbt-1.query_results");

    cbt_remove_work_file(results_path_);
    request_.changeid_only = true;
    get_reg_settings()->cbt_debug_enabled = true;
    EXPECT_EQ(run(), 0) << error_text_;
    EXPECT_THAT(read_file(dir_ / "arguments"), HasSubstr("|--changeid_only|y|"));
    EXPECT_THAT(read_file(dir_ / "arguments"), HasSubstr("|appliance|--debug|1|"));
    cbt_remove_work_file(results_path_);
    EXPECT_EQ(access(results_path_.c_str(), F_OK), 0) << "kept for debugging";
}

TEST_F(cbt_script_test, ChangesAreAskedForSinceTheLastUsableChangeId) {
    using id_t = std::optional<std::string>;
    const struct {
        id_t incr;
        id_t base;
        const char* expected;
    } cases[] = {
        {std::nullopt, std::nullopt, ""},
        {"", "", ""},
        {"uninitialized", "uninitialized", ""},
        {"a/3", "a/1", "|--changeid_incr|a/3|"},
        {"uninitialized", "a/1", "|--changeid_incr|a/1|"},
        {"reseed", "a/1", "|--changeid_incr|a/1|"},
        {"reseed", std::nullopt, ""},
    };
    say(R"(printf '%s|' "$@" > arguments)");
    ks_vdisk_t vdisk;
    request_.vdisk = &vdisk;
    for (const auto& c : cases) {
        vdisk.changeid_incr = c.incr;
        vdisk.changeid_base = c.base;
        ASSERT_EQ(run(), 0) << error_text_;
        const std::string arguments = read_file(dir_ / "arguments");
        const std::size_t at = arguments.find("|--changeid_incr");
        EXPECT_EQ(at == std::string::npos ? "" : arguments.substr(at), c.expected);
    }
}

TEST_F(cbt_script_test, OnlyTheScriptSaysThatThereIsNoChangeIdOrThatTrackingMustStartAnew) {
    for (const int code : {5, 8, 1}) {
        say("exit " + std::to_string(code));
        EXPECT_EQ(run(), code);
        EXPECT_THAT(error_text_, HasSubstr("--password ****** "));
        EXPECT_THAT(error_text_, testing::Not(HasSubstr("pass word")));
    }
    say("kill -9 $$");
    EXPECT_EQ(run(), EINVAL);
    write_file(tool_paths().cbt_getblocklist, "");
    EXPECT_EQ(run(), ERR_IO) << "nothing that can be run";
    controller_.answer("hvconfig", "", 400);  // the HTTP client's 5
    EXPECT_EQ(run(), ERR_IO);
    controller_.answer("hvconfig", "[]");
    EXPECT_EQ(run(), ENOENT);
}

TEST_F(cbt_script_test, NothingRunsOverAFileThatStandsInTheWay) {
    write_file(dir_ / "victim", "precious");
    ASSERT_EQ(symlink((dir_ / "victim").c_str(), (dir_ / "cbt-1.query_results").c_str()), 0);
    say("echo lost > cbt-1.query_results");
    EXPECT_EQ(run(), EEXIST);
    EXPECT_EQ(read_file(dir_ / "victim"), "precious");
}

TEST_F(cbt_script_test, EndsWithItsTimeOrWithTheDaemon) {
    say("echo $$ > pid; exec /bin/sleep 1000");
    {
        const manual_clock_t clock(1000);
        EXPECT_EQ(run(), ETIME);
        EXPECT_GE(clock.slept(), cbt_script_time_limit);
    }

    unlink((dir_ / "pid").c_str());
    errnum_t number = 0;
    std::thread opener([&] { number = run(); });
    while (read_file(dir_ / "pid").empty())
        usleep(1000);
    cbt_script_hurry();
    opener.join();
    EXPECT_EQ(number, ERR_CANCELLED);
    EXPECT_NE(kill(std::stoi(read_file(dir_ / "pid")), 0), 0);
    EXPECT_EQ(run(), ERR_CANCELLED) << "no new one";
}

}  // namespace
}  // namespace mirador
