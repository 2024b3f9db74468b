// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/webservices/ws_snapshot.h"

#include <gmock/gmock.h>

#include "lib/cor_string.h"
#include "tests/support/scripted_agent.h"

namespace mirador {
namespace {

using testing::ElementsAre;

const ks_hypervisor_config_t hvc = {
    .hostname = "esx", .login_name = "root", .password = secret_t("secret"), .hv_port = 443};

class ws_snapshot : public testing::Test {
  protected:
    // "<name>|<vmname>|<vmuuid>|<ctime>|<quiesced>" for each, and what was logged.
    std::vector<std::string> listed(const std::string& data, std::string* log = nullptr) {
        agent_.answer_data("list_snapshot", data);
        std::vector<ws_snapshot_desc_t> list(1);
        testing::internal::CaptureStdout();
        EXPECT_EQ(ws_list_snapshot(hvc, "", &list), nullptr);
        const std::string printed = testing::internal::GetCapturedStdout();
        if (log != nullptr)
            *log = printed;
        std::vector<std::string> lines;
        for (const ws_snapshot_desc_t& desc : list)
            lines.push_back(cor_format("%s|%s|%s|%jd|%d", desc.name.c_str(), desc.vmname.c_str(), desc.vmuuid.c_str(),
                                       std::intmax_t{desc.ctime}, desc.quiesced));
        EXPECT_EQ(lines.at(0), "|||0|0");  // what the caller's list held stays
        lines.erase(lines.begin());
        return lines;
    }

    scripted_agent_t agent_;
};

TEST_F(ws_snapshot, TakesCountsForWhatTheyAre) {
    struct {
        const char* data;
        int count;
    } const cases[] = {
        {"\"2\"", 2}, {"3", 3},   {"\" 12 of 13\"", 12},        {"2.9", 2},
        {"NaN", 0},   {"[3]", 0}, {"4294967297", ws_max_count}, {"\"99999999999999999999999\"", ws_max_count},
    };
    for (const auto& c : cases) {
        agent_.answer_data("create_top_snapshot", c.data);
        agent_.answer_data("remove_snapshot", c.data);
        int created = -7;
        int removed = -7;
        EXPECT_EQ(ws_create_top_snapshot(hvc, "vm", "u", "n", false, &created), nullptr) << c.data;
        EXPECT_EQ(ws_remove_snapshot(hvc, "vm", "u", "n", true, &removed), nullptr) << c.data;
        EXPECT_EQ(created, c.count) << c.data;
        EXPECT_EQ(removed, c.count) << c.data;
    }
    for (const char* method : {"create_top_snapshot", "remove_snapshot"})
        agent_.answer(method, "{}");
    int created = -7;
    EXPECT_EQ(ws_create_top_snapshot(hvc, "vm", "u", "n", false, &created), nullptr);
    EXPECT_EQ(created, 0);
}

TEST_F(ws_snapshot, ListsWhatIsWhole) {
    std::string log;
    EXPECT_THAT(listed(R"([{"name":"a","vmname":"v","vmuuid":"u","createTime":1700000000,"quiesced":0},
                   {"quiesced":-3,"createTime":0,"vmuuid":"","vmname":"","name":"","more":[1]},
                   {"name":"c","vmname":"v","vmuuid":"u","createTime":9000000000000,"quiesced":1},
                   {"name":"d\u0000e","vmname":"v","vmuuid":"u","createTime":-9000000000000,"quiesced":1}])"
                       "",
                       &log),
                ElementsAre("a|v|u|1700000000|0", "|||0|1", "c|v|u|2147483647|1", "d|v|u|-2147483648|1"));
    EXPECT_EQ(log, "");

    EXPECT_THAT(listed(R"([{"vmname":"v","vmuuid":"u","createTime":1,"quiesced":0}, 7, null, [], "x", {},
                           {"name":17,"vmname":"v","vmuuid":"u","createTime":1,"quiesced":0},
                           {"name":"n","vmname":null,"vmuuid":"u","createTime":1,"quiesced":0},
                           {"name":"n","vmname":"v","createTime":1,"quiesced":0},
                           {"name":"n","vmname":"v","vmuuid":"u","createTime":"1","quiesced":0},
                           {"name":"n","vmname":"v","vmuuid":"u","createTime":1,"quiesced":4294967296},
                           {"name":"n","vmname":"v","vmuuid":"u","createTime":1,"quiesced":true},
                           {"name":"good","vmname":"v","vmuuid":"u","createTime":1,"quiesced":0}])",
                       &log),
                ElementsAre("good|v|u|1|0"));
    EXPECT_THAT(log, testing::HasSubstr("left out 12 of 13 snapshots that the agent lists"));

    for (const char* data : {"[]", "{}", "null", "17", "\"[]\""})
        EXPECT_THAT(listed(data, &log), testing::IsEmpty()) << data;
    EXPECT_EQ(log, "");
}

}  // namespace
}  // namespace mirador
