// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/snapshot_alerts.h"

#include <gmock/gmock.h>

#include <cerrno>

#include "controller/lib/controller_url.h"
#include "lib/clock.h"
#include "tests/support/fake_controller.h"

namespace mirador {
namespace {

using testing::HasSubstr;

constexpr const char* removal = "Snapshot removal failed";

std::string without_time(std::string body) {
    const std::size_t time = body.find("\"alert_time\"");
    return time == std::string::npos ? body : body.erase(time, body.find(", ", time) + 2 - time);
}

class snapshot_alerts : public testing::Test {
  protected:
    snapshot_alerts() {
        answer_with("", "[]");
        watchdog("running");
    }
    ~snapshot_alerts() override { tool_paths().controller_watchdog.clear(); }

    // VM "vm" (and others) on the hypervisor "esx", with the error text given; the alerts that stand.
    void answer_with(const std::string& error, const std::string& alerts) {
        fake_.answer("hvconfig", R"([{"hostname":"other"},{"hostname":"esx"},{"hostname":"a/b"}])");
        fake_.answer("vhost?hv_hostname=esx", R"([{"name":"VM","uuid":"u-0"},{"name":"vm"},)"
                                              R"({"name":"vm","uuid":"u-1","error":")" +
                                                  error + R"("},{"name":"vm","uuid":"u-2"}])");
        fake_.answer("alert", [=](const http_request_t& request, http_connection_t& connection) {
            connection.reply(200, request.method == "GET" ? alerts : "");
        });
        fake_.answer("vmconfig", "");
    }

    void watchdog(const std::string& answer) {
        tool_paths().controller_watchdog = write_script(dir_ / "watchdog", "echo " + answer + "\n");
    }

    // What was posted since the last look, "<object> <body>" with times left out.
    std::vector<std::string> posted() {
        std::vector<std::string> all;
        const std::vector<http_request_t> requests = fake_.received();
        for (; seen_ < requests.size(); seen_++)
            if (requests[seen_].method == "POST")
                all.push_back(requests[seen_].target.substr(5) + " " + without_time(requests[seen_].body));
        return all;
    }

    const fast_clock_t clock_{20};  // for the waits behind the watchdog
    const temp_dir_t dir_;
    fake_controller_t& fake_ = fake_controller_t::fresh(controller_get_url);
    std::size_t seen_ = 0;
};

TEST_F(snapshot_alerts, AreRaisedAndTakenBack) {
    const std::string standing = R"([{"alert_id":"snapshot_create","object_id":"esx:VM","node_uuid":"own"},)"
                                 R"({"alert_id":"snapshot_remove","object_id":"esx:vm","node_uuid":"own"}])";
    struct {
        const char* error;
        std::string alerts;
        bool failed;
        snapshot_action_t action;
        std::vector<std::string> posts;
    } const cases[] = {
        {"",
         "[]",
         true,
         SNAPSHOT_CREATE,
         {R"(vmconfig { "uuid": "u-1", "error_message": "Snapshot creation failed" })",
          R"(alert { "action": "alert_post", "alert_id": "snapshot_create", "object_id": "esx:vm", )"
          R"("severity": "warning", "hv_host": "esx", "vhost": "vm", "message": "Snapshot creation failed for )"
          R"(virtual machine 'vm' on server 'esx'.", "node_uuid": "", "managed_alert": 1 })"}},
        {removal, standing, false, SNAPSHOT_CREATE, {}},
        {removal,
         standing,
         false,
         SNAPSHOT_REMOVE,
         {R"(vmconfig { "uuid": "u-1", "error_message": "", "snap_suffix": "" })",
          R"(alert { "action": "alert_clear", "alert_id": "snapshot_remove", "object_id": "esx:vm", )"
          R"("node_uuid": "" })"}},
    };
    for (const auto& c : cases) {
        answer_with(c.error, c.alerts);
        const errdesc_t* const err = c.failed ? errdesc_set_str(EIO, "the cause") : nullptr;
        raise_snapshot_alert("esx", "vm", err, c.action);
        EXPECT_THAT(posted(), testing::ElementsAreArray(c.posts)) << c.error << c.failed << c.action;
    }
}

// Nothing of the controller's becomes the caller's error, and one request that fails does not keep the next.
TEST_F(snapshot_alerts, LeaveTheCallersErrorAlone) {
    fake_.answer("vmconfig", "", 500);
    fake_.answer("alert", "", 500);
    for (const snapshot_action_t action : {SNAPSHOT_CREATE, SNAPSHOT_REMOVE}) {
        const errdesc_t* const err = errdesc_set_str(114, "busy");
        const std::string before = err->string;
        testing::internal::CaptureStdout();
        raise_snapshot_alert("esx", "vm", err, action);
        const std::string failed = testing::internal::GetCapturedStdout();
        EXPECT_EQ(err->number, 114);
        EXPECT_EQ(err->string, before);
        EXPECT_THAT(posted(), testing::ElementsAre(HasSubstr("vmconfig"), HasSubstr("alert_post")));
        EXPECT_THAT(failed, HasSubstr("WARNING"));
        testing::internal::CaptureStdout();
        raise_snapshot_alert("gone", "vm", nullptr, action);
        EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("gone"));
        EXPECT_EQ(err->string, before);
    }
}

TEST_F(snapshot_alerts, WaitForTheController) {
    watchdog("stopped");
    raise_snapshot_alert("esx", "vm", errdesc_set(EIO), SNAPSHOT_CREATE);
    raise_snapshot_alert("esx", "vm", nullptr, SNAPSHOT_REMOVE);
    EXPECT_THAT(fake_.received(), testing::IsEmpty());
}

}  // namespace
}  // namespace mirador
