// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/webservices/ws_session.h"

#include <gmock/gmock.h>

#include "lib/jrpcclnt_pool.h"
#include "tests/support/scripted_agent.h"

namespace mirador {
namespace {

using testing::ElementsAre;

constexpr const char* start = R"(["start", "--hypervisor", "esx-1", "--portnumber", "443"])";
constexpr const char* vendor = R"(["set_vendor_id", "Corvantis"])";
constexpr const char* login = R"(["connect", "root", "s3cr\"t", "/tmp/jrpc_session_file-esx-1-443"])";
constexpr const char* call = R"(["method", "a", ""])";

ks_hypervisor_config_t hypervisor() {
    return {.hostname = "esx-1", .login_name = "root", .password = secret_t("s3cr\"t"), .hv_port = 443};
}

// The outcome of ["method", "a", ""]: "<number> <text>", "ok <data>".
std::string called(const ks_hypervisor_config_t& hvc = hypervisor()) {
    json_ptr data(json_object_new_int(17));
    if (const errdesc_t* e = jrpc_single_call_raw(hvc, {"method", "a", ""}, &data)) {
        EXPECT_EQ(data, nullptr);
        return std::to_string(e->number) + " " + e->string;
    }
    return std::string("ok ") + json_object_to_json_string(data.get());
}

class ws_session : public testing::Test {
  protected:
    ~ws_session() override {
        EXPECT_EQ(jrpcclnt_pool_in_use(), 0U);
        ws_set_vendor_id("Corvantis");
    }
    scripted_agent_t agent_;
};

TEST_F(ws_session, LogsInAnewEveryTime) {
    agent_.answer_data("method", R"({"n":[1]})");
    EXPECT_EQ(called(), R"(ok { "n": [ 1 ] })");
    EXPECT_THAT(agent_.seen(), ElementsAre(start, vendor, login, call));

    agent_.answer("method", "{}");
    ws_set_vendor_id("Other \"one\"");
    EXPECT_EQ(called(), "ok null");
    EXPECT_THAT(agent_.seen(), ElementsAre(R"(["set_vendor_id", "Other \"one\""])", login, call));
    EXPECT_EQ(jrpc_single_call_raw(hypervisor(), {"method"}, nullptr), nullptr);
}

TEST_F(ws_session, ThatIsOpenKeepsItsAgentFromOthers) {
    jrpc_handle_t* handle = nullptr;
    ASSERT_EQ(ws_connect(hypervisor(), &handle), nullptr);
    EXPECT_EQ(called(), "ok null");
    EXPECT_THAT(agent_.seen(), ElementsAre(start, vendor, login, start, vendor, login, call));
    EXPECT_EQ(ws_disconnect(&handle), nullptr);
    EXPECT_EQ(handle, nullptr);
}

// Whoever has the agent next does not go on in the half of a session that the failed one left.
TEST_F(ws_session, ThatFailsGivesTheAgentBack) {
    agent_.answer_error("set_vendor_id", 5, "no vendor");
    EXPECT_EQ(called(), "5 no vendor");
    EXPECT_THAT(agent_.seen(), ElementsAre(start, vendor));

    agent_.answer("set_vendor_id", "{}");
    agent_.answer_error("connect", 13, "no entry");
    EXPECT_EQ(called(), "13 no entry");
    jrpc_handle_t* handle = nullptr;
    EXPECT_NE(ws_connect(hypervisor(), &handle), nullptr);
    EXPECT_EQ(handle, nullptr);
    EXPECT_THAT(agent_.seen(), ElementsAre(vendor, login, vendor, login));

    agent_.answer("connect", "{}");
    agent_.answer_error("method", 114, "another task");
    EXPECT_EQ(called(), "114 another task");
    EXPECT_THAT(agent_.seen(), ElementsAre(vendor, login, call));
}

TEST_F(ws_session, StartsAnotherAgentForOneThatDied) {
    for (const char* method : {"set_vendor_id", "connect", "method"}) {
        agent_.answer(method, "");
        EXPECT_EQ(called(), "32 Failed to get response to JRPC request: Broken pipe") << method;
        EXPECT_THAT(agent_.seen(), testing::Contains(start)) << method;
        agent_.answer(method, "{}");
    }
    EXPECT_EQ(called(), "ok null");
    EXPECT_THAT(agent_.seen(), ElementsAre(start, vendor, login, call));
}

TEST_F(ws_session, MasksThePasswordInErrors) {
    const std::string all(1000, '*');
    struct {
        const char* method;
        const char* password;
        std::string text;
        std::string shown;
    } const cases[] = {
        {"set_vendor_id", "hunter2", "hunter2", "******"},
        {"connect", "hunter2", "root/hunter2: (hunter2hunter2)", "root/******: (************)"},
        {"method", "hunter2", "HUNTER2 is not hunter2", "HUNTER2 is not ******"},
        {"method", "*", "a * b", "a ****** b"},
        {"method", "", "nothing to hide", "nothing to hide"},
        {"method", "x", std::string(500, 'x'), all + all + all},
        {"method", "hunter2", std::string(1020, '-') + "hunter2", std::string(1020, '-')},
        {"method", "hunter2", std::string(1016, '-') + "hunter2", std::string(1016, '-') + "******"},
    };
    for (const auto& c : cases) {
        ks_hypervisor_config_t hvc = hypervisor();
        hvc.password = secret_t(c.password);
        agent_.answer_error(c.method, 13, c.text);
        EXPECT_EQ(called(hvc), ("13 " + c.shown).substr(0, 3 + sizeof(errdesc_t::string) - 1)) << c.text;
        agent_.answer(c.method, "{}");
    }
    for (const std::string& line : agent_.seen())
        EXPECT_EQ(line.find("hunter2") != std::string::npos, line.starts_with(R"(["connect", "root", "hunter2")"));
}

TEST_F(ws_session, RefusesWhatCannotBeConnectedTo) {
    struct {
        void (*spoil)(ks_hypervisor_config_t*);
        const char* outcome;
    } const cases[] = {
        {[](auto* hvc) { hvc->hostname.reset(); }, "22 Hypervisor '' refused, host name missing"},
        {[](auto* hvc) { hvc->hostname = "../esx"; }, "22 Hypervisor '../esx' refused, host name is no name"},
        {[](auto* hvc) { hvc->hostname = "--help"; }, "22 Hypervisor '--help' refused, host name begins with a dash"},
        {[](auto* hvc) { hvc->hv_port = 0; }, "22 Hypervisor 'esx-1' refused, port missing"},
        {[](auto* hvc) { hvc->hv_port = 65536; }, "22 Hypervisor 'esx-1' refused, port missing"},
        {[](auto* hvc) { hvc->login_name = ""; }, "22 Hypervisor 'esx-1' refused, login name missing"},
        {[](auto* hvc) { hvc->password.reset(); }, "22 Hypervisor 'esx-1' refused, password missing"},
    };
    for (const auto& c : cases) {
        ks_hypervisor_config_t hvc = hypervisor();
        c.spoil(&hvc);
        EXPECT_EQ(called(hvc), c.outcome);
    }
    EXPECT_THAT(agent_.seen(), testing::IsEmpty());
    ks_hypervisor_config_t highest = hypervisor();
    highest.hv_port = 65535;
    EXPECT_EQ(called(highest), "ok null");
}

}  // namespace
}  // namespace mirador
