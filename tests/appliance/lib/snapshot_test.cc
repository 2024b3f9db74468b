// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/snapshot.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "lib/cor_string.h"
#include "tests/support/scripted_agent.h"

namespace mirador {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

snapshotdesc_t request() {
    snapshotdesc_t desc;
    snapshot_init(&desc);
    desc.server = "esx";
    desc.port = 8443;
    desc.user = "root";
    desc.passwd = secret_t("secret");
    desc.vmname = "vm";
    desc.vmuuid = "u-1";
    desc.snapshotname = "V: m";
    return desc;
}

class snapshot : public testing::Test {
  protected:
    // What the agent got, without where the session stands that carried it.
    std::vector<std::string> asked() {
        std::vector<std::string> seen = agent_.seen();
        std::erase_if(seen, [](const std::string& line) { return line.starts_with(R"(["set_vendor_id")"); });
        return seen;
    }
    scripted_agent_t agent_;
};

TEST_F(snapshot, RequestsGoToTheHypervisor) {
    const char* login = R"(["connect", "root", "secret", "/tmp/jrpc_session_file-esx-8443"])";
    agent_.answer_data("create_top_snapshot", "\"2\"");
    agent_.answer_data("create_snapshot", "9");
    agent_.answer_data("remove_snapshot", "1");
    snapshotdesc_t desc = request();
    int count = -1;
    EXPECT_EQ(snapshot_create(desc, &count), nullptr);
    EXPECT_EQ(count, 2);
    EXPECT_THAT(asked(), ElementsAre(R"(["start", "--hypervisor", "esx", "--portnumber", "8443"])", login,
                                     R"(["create_top_snapshot", "vm", "u-1", "V: m", "0"])"));
    desc.quiesce = true;
    EXPECT_EQ(snapshot_create(desc, nullptr), nullptr);
    EXPECT_THAT(asked(), ElementsAre(login, R"(["create_snapshot", "vm", "u-1", "V: m", "1"])"));
    EXPECT_EQ(snapshot_remove(desc, &count), nullptr);
    EXPECT_EQ(count, 1);
    EXPECT_THAT(asked(), ElementsAre(login, R"(["remove_snapshot", "vm", "u-1", "V: m", "0"])"));
    desc.blocking = true;
    EXPECT_EQ(snapshot_remove(desc, nullptr), nullptr);
    EXPECT_THAT(asked(), ElementsAre(login, R"(["remove_snapshot", "vm", "u-1", "V: m", "1"])"));

    snapshot_free(&desc);
    EXPECT_EQ(desc.magic, 0U);
    EXPECT_EQ(desc.server + desc.passwd.reveal() + desc.snapshotname, "");
}

TEST_F(snapshot, RequestsThatLackSomethingAreRefused) {
    struct {
        void (*spoil)(snapshotdesc_t*);
        const char* text;
    } const cases[] = {
        {[](auto* desc) { desc->vmname.clear(); }, "Snapshot 'V: m' of VM '' refused, VM name missing"},
        {[](auto* desc) { desc->vmuuid.clear(); }, "Snapshot 'V: m' of VM 'vm' refused, VM uuid missing"},
        {[](auto* desc) { desc->snapshotname.clear(); }, "Snapshot '' of VM 'vm' refused, snapshot name missing"},
        {[](auto* desc) { desc->port = -1; }, "Hypervisor 'esx' refused, port missing"},
    };
    for (const auto& c : cases) {
        snapshotdesc_t desc = request();
        c.spoil(&desc);
        int count = -1;
        for (errdesc_t* e :
             {snapshot_create(desc, &count), snapshot_create(desc, nullptr), snapshot_remove(desc, &count)}) {
            ASSERT_NE(e, nullptr) << c.text;
            EXPECT_EQ(e->number, EINVAL);
            EXPECT_STREQ(e->string, c.text);
        }
        EXPECT_EQ(count, -1);
    }
    EXPECT_THAT(agent_.seen(), IsEmpty());
}

TEST_F(snapshot, ListsAreOfOpenRecords) {
    const ks_hypervisor_config_t hvc = {
        .hostname = "esx", .login_name = "root", .password = secret_t("secret"), .hv_port = 443};
    std::vector<snapshotdesc_t> list(1);
    agent_.answer_error("list_snapshot", 5, "not today");
    const errdesc_t* e = snapshot_list(hvc, ESX_HYPERVISOR, "V: .*", &list);
    ASSERT_NE(e, nullptr);
    EXPECT_STREQ(e->string, "not today");
    EXPECT_EQ(list.size(), 1U);

    agent_.answer_data("list_snapshot",
                       R"([{"name":"V: m","vmname":"v","vmuuid":"u","createTime":1700000000,"quiesced":1}, 17,
                           {"name":"V: n","vmname":"w","vmuuid":"x","createTime":5,"quiesced":0}])");
    EXPECT_EQ(snapshot_list(hvc, ESX_HYPERVISOR, "V: .*", &list), nullptr);
    EXPECT_EQ(agent_.seen().back(), R"(["list_snapshot", "V: .*"])");
    std::vector<std::string> lines;
    for (const snapshotdesc_t& desc : list)
        lines.push_back(cor_format("%x %s %s %s %jd %d", desc.magic, desc.snapshotname.c_str(), desc.vmname.c_str(),
                                   desc.vmuuid.c_str(), std::intmax_t{desc.ctime}, desc.quiesce));
    EXPECT_THAT(lines, ElementsAre("0    0 0", "eeeeeeff V: m v u 1700000000 1", "eeeeeeff V: n w x 5 0"));
}

}  // namespace
}  // namespace mirador
