// SPDX-License-Identifier: Apache-2.0
// Each case runs in a process of its own: the URL is found once per process.
#include "controller/lib/controller_url.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

#include "controller/lib/controller.h"
#include "lib/clock.h"
#include "lib/cor_string.h"
#include "lib/tool_paths.h"
#include "tests/lib/in_child.h"
#include "tests/lib/temp_dir.h"
#include "tests/support/http_server.h"

namespace mirador {
namespace {

constexpr unsigned hang_limit_s = 2;

class controller_url : public testing::Test {
  protected:
    // A script that notes its arguments and then runs `body`.
    void script(const std::string& body) {
        tool_paths().brand_reader =
            write_script(dir_ / "brand", "echo \"$@\" >>" + (dir_ / "calls") + "\n" + body + "\n");
    }
    std::string calls() const { return read_file(dir_ / "calls"); }

    // What a process gets that asks twice, one URL a line.
    std::string asked_twice() {
        const std::string result = dir_ / "result";
        const int status = in_child([&] {
            const fast_clock_t clock(50);
            write_file(result, controller_get_url() + "\n");
            alarm(hang_limit_s);
            write_file(result, read_file(result) + controller_get_url() + "\n");
            return 0;
        });
        return status == 0 ? read_file(result) : read_file(result) + "signal " + std::to_string(status - 128);
    }

    temp_dir_t dir_;
};

TEST_F(controller_url, IsFoundOnce) {
    script("printf '8443\\n0'");
    EXPECT_EQ(asked_twice(), "http://localhost:8443\nhttp://localhost:8443\n");
    EXPECT_EQ(calls(), "controller.port controller.use_https\n");
    script("echo 443; echo 2");
    EXPECT_EQ(asked_twice(), "https://localhost:443\nhttps://localhost:443\n");
}

TEST_F(controller_url, IsLookedForAgainAfterNonsense) {
    script("test $(wc -l <" + (dir_ / "calls") + ") = 1 && echo x || printf '80\\n0\\n'");
    EXPECT_EQ(asked_twice(), "https://localhost:443\nhttp://localhost:80\n");
    script("exec >&-");
    EXPECT_EQ(asked_twice(), "https://localhost:443\nhttps://localhost:443\n");
}

TEST_F(controller_url, BlocksForGoodAfterAScriptThatFails) {
    const std::string blocked = "https://localhost:443\nsignal " + std::to_string(SIGALRM);
    script("printf '80\\n0\\n'; exit 3");
    EXPECT_EQ(asked_twice(), blocked);
    script("exec sleep 60");  // beyond the limit of 120 seconds by this clock
    EXPECT_EQ(asked_twice(), blocked);
    tool_paths().brand_reader = dir_ / "none";
    EXPECT_EQ(asked_twice(), blocked);
}

TEST_F(controller_url, ReachesTheControllerByTls) {
    const int status = in_child([&] {
        const http_server_t server(
            [](const http_request_t&, http_connection_t& connection) {
                connection.reply(200, "[{\"hostname\":\"h\"}]");
            },
            true);
        script(cor_format("printf '%d\\n1\\n'", server.port()));
        ks_hypervisor_config_t hvc;
        return controller_get_hypervisor(&hvc, "h") == nullptr ? 0 : 1;
    });
    EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace mirador
