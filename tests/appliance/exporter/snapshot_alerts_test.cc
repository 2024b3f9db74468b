// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/snapshot_alerts.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "controller/lib/controller_url.h"
#include "lib/clock.h"
#include "tests/support/fake_controller.h"

namespace mirador {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* creation = "Snapshot creation failed";
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
    const auto alert_of = [](const std::string& kind, const std::string& object = "esx:vm") {
        return R"({"alert_id":")" + kind + R"(","object_id":")" + object + R"(","node_uuid":"own"})";
    };
    const auto error_post = [](const std::string& text) {
        return R"(vmconfig { "uuid": "u-1", "error_message": ")" + text + R"(" })";
    };
    const auto raised = [](const std::string& kind, const std::string& word) {
        return R"(alert { "action": "alert_post", "alert_id": ")" + kind +
               R"(", "object_id": "esx:vm", "severity": "warning", "hv_host": "esx", "vhost": "vm", )"
               R"("message": "Snapshot )" +
               word + R"( failed for virtual machine 'vm' on server 'esx'.", "node_uuid": "", "managed_alert": 1 })";
    };
    const auto cleared = [](const std::string& kind) {
        return R"(alert { "action": "alert_clear", "alert_id": ")" + kind +
               R"(", "object_id": "esx:vm", "node_uuid": "" })";
    };
    const std::string no_suffix = R"(vmconfig { "uuid": "u-1", "snap_suffix": "" })";
    const std::string nothing_left = R"(vmconfig { "uuid": "u-1", "error_message": "", "snap_suffix": "" })";
    const std::string both = "[" + alert_of("snapshot_create") + "," + alert_of("snapshot_remove") + "]";
    struct {
        const char* error;
        std::string alerts;
        bool failed;
        snapshot_action_t action;
        std::vector<std::string> posts;
    } const cases[] = {
        {"", "[]", true, SNAPSHOT_CREATE, {error_post(creation), raised("snapshot_create", "creation")}},
        {removal, both, true, SNAPSHOT_REMOVE, {error_post(removal), raised("snapshot_remove", "removal")}},
        {"", "[]", true, SNAPSHOT_UNKNOWN, {error_post(removal), raised("snapshot_remove", "removal")}},
        {"", "[]", false, SNAPSHOT_CREATE, {}},
        {creation, both, false, SNAPSHOT_CREATE, {error_post(""), cleared("snapshot_create")}},
        {removal, "[" + alert_of("snapshot_remove") + "]", false, SNAPSHOT_CREATE, {}},
        {"", "[" + alert_of("snapshot_create", "esx:VM") + "]", false, SNAPSHOT_CREATE, {}},
        {"", "[]", false, SNAPSHOT_REMOVE, {no_suffix}},
        {removal, both, false, SNAPSHOT_REMOVE, {nothing_left, cleared("snapshot_remove")}},
        {removal, "[]", false, SNAPSHOT_UNKNOWN, {error_post("")}},
    };
    for (const auto& c : cases) {
        answer_with(c.error, c.alerts);
        const errdesc_t* const err = c.failed ? errdesc_set_str(EIO, "the cause") : nullptr;
        raise_snapshot_alert("esx", "vm", err, c.action);
        EXPECT_THAT(posted(), ElementsAreArray(c.posts)) << c.error << c.failed << c.action;
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
        EXPECT_THAT(posted(), ElementsAre(HasSubstr("vmconfig"), HasSubstr("alert_post")));
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
    EXPECT_THAT(fake_.received(), IsEmpty());
}

}  // namespace
}  // namespace mirador
