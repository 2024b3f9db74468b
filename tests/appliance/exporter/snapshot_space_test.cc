// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/snapshot_space.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "controller/lib/controller_url.h"
#include "tests/support/fake_controller.h"
#include "tests/support/scripted_agent.h"
#include "vmware/lib/webservices/ws_datastore.h"

namespace mirador {
namespace {

const ks_hypervisor_config_t hvc = {
    .hostname = "esx", .login_name = "root", .password = secret_t("secret"), .hv_port = 443};

std::string datastore(const std::string& name, const std::string& capacity, const std::string& free_space) {
    return R"({"hv":"esx","name":")" + name + R"(","url":"/vmfs/volumes/x","type":"NFS","dc":"dc","timestamp":7,)" +
           R"("accessible":1,"capacity":)" + capacity + R"(,"freeSpace":)" + free_space + R"(,"paths":["a",3]})";
}

class snapshot_space : public testing::Test {
  protected:
    // The action and text of the alert that is sent; empty when there is none.
    std::string alert(const std::string& datastores) {
        agent_.answer_data("df", datastores);
        const std::size_t before = fake_.received().size();
        snapshot_check_space(hvc, vmc_);
        const std::vector<http_request_t> requests = fake_.received();
        return requests.size() == before ? "" : requests.back().body;
    }

    fake_controller_t& fake_ = []() -> fake_controller_t& {
        fake_controller_t& fake = fake_controller_t::fresh(controller_get_url);
        fake.answer("alert", "");
        return fake;
    }();
    scripted_agent_t agent_;
    ks_vm_config_t vmc_ = [] {
        ks_vm_config_t vmc;
        vmc.hv_hostname = "esx";
        vmc.vm_name = "vm";
        vmc.uuid = "u-1";
        vmc.datastore_name = "ds1";
        return vmc;
    }();
};

TEST_F(snapshot_space, TellsWhenThereIsTooLittleAndWhenThereIsEnough) {
    const std::string tebi = "1099511627776";
    struct {
        std::string datastores;
        const char* told;  // part of the request; null: nothing is sent
    } const cases[] = {
        {"[" + datastore("ds2", tebi, "1") + "]", nullptr},  // not the VM's
        {"[" + datastore("ds2", tebi, "1") + "," + datastore("ds1", "4294967296", "1073741823") + "]",
         "has only 1023 MiB free. A snapshot of virtual machine 'vm' grows"},
        {"[" + datastore("ds1", "4294967296", "1073741824") + "]", "alert_clear"},
        {"[" + datastore("ds1", tebi, "10995116276") + "]", "has only 10485 MiB free"},
        {"[" + datastore("ds1", tebi, "10995116277") + "]", "alert_clear"},
        {"{}", nullptr},
        {R"([{"name":"ds1"}])", nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.datastores);
        const std::string told = alert(c.datastores);
        if (c.told == nullptr)
            EXPECT_EQ(told, "");
        else
            EXPECT_NE(told.find(c.told), std::string::npos) << told;
    }
}

TEST_F(snapshot_space, AgentThatCannotTellChangesNothing) {
    agent_.answer_error("df", ENOSYS, "no such method");
    const std::size_t before = fake_.received().size();
    const errdesc_t* standing = errdesc_set_str(EIO, "standing");
    snapshot_check_space(hvc, vmc_);
    EXPECT_EQ(standing->number, EIO);
    EXPECT_EQ(fake_.received().size(), before);
}

}  // namespace
}  // namespace mirador
