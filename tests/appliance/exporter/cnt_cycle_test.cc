// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/cnt_cycle.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <functional>
#include <thread>

#include "appliance/exporter/controller_thr.h"
#include "appliance/exporter/hv_thr.h"
#include "appliance/exporter/snapshot_scrub.h"
#include "appliance/exporter/vm_state.h"
#include "controller/lib/managed_alert.h"
#include "lib/clock.h"
#include "lib/tool_paths.h"
#include "tests/appliance/exporter/inventory_lab.h"

namespace mirador {
namespace {

using testing::Contains;
using testing::HasSubstr;

class cnt_cycle_test : public inventory_lab_t {
  protected:
    cnt_cycle_test() {
        tool_paths().pgrep = write_script(dir_ / "pgrep", "echo 1\n");
        tool_paths().controller_watchdog = write_script(dir_ / "watchdog", "echo running\n");
    }
    ~cnt_cycle_test() override { hv_thr_stop_all(); }

    bool cycle() {
        return cnt_cycle_run({.root = shadow_, .gen = gen_++, .goes_on = [] { return true; }}, &folders_);
    }
    // Hypervisors' threads work in their own time.
    static bool soon(const std::function<bool()>& condition) {
        for (int i = 0; i < 3000; i++) {
            if (condition())
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }
    bool soon_names(const std::string& dir, const std::string& expected) const {
        const bool found = soon([&] { return names(dir) == expected; });
        EXPECT_EQ(names(dir), expected);
        return found;
    }

    std::uint64_t gen_ = 1;
    user_folders_t folders_;
    fast_clock_t clock_{50};
};

TEST_F(cnt_cycle_test, VmFollowsItsHypervisorAndLeavesWhenItIsNotExported) {
    lab_vm_t vm;
    make_files(vm);
    list({vm});
    ASSERT_TRUE(cycle());
    EXPECT_TRUE(soon_names("esx1/vm", "disk-flat.vmdk disk.vmdk vm.cfg vm.vmx"));

    vm.host = "esx2";  // the host is called otherwise now
    list({vm});
    ASSERT_TRUE(cycle());
    EXPECT_TRUE(soon_names("esx2/vm", "disk-flat.vmdk disk.vmdk vm.cfg vm.vmx"));
    EXPECT_EQ(names(""), "esx2");

    vm.exported = false;
    list({vm});
    ASSERT_TRUE(cycle());
    EXPECT_EQ(names("esx2"), "");
}

TEST_F(cnt_cycle_test, TreeRecoversFromACycleWithoutHypervisors) {
    lab_vm_t vm;
    make_files(vm);
    list({vm});
    ASSERT_TRUE(cycle());
    EXPECT_TRUE(soon_names("esx1/vm", "disk-flat.vmdk disk.vmdk vm.cfg vm.vmx"));
    answer("hvconfig", "garbage");
    EXPECT_FALSE(cycle());
    EXPECT_EQ(names(""), "");
    list({vm});
    ASSERT_TRUE(cycle());
    EXPECT_TRUE(soon_names("esx1/vm", "disk-flat.vmdk disk.vmdk vm.cfg vm.vmx"));

    vm.snap_exists = 1;  // and so do the other disks of a VM that is being read
    list({vm});
    ASSERT_TRUE(cycle());
    answer("hvconfig", "garbage");
    EXPECT_FALSE(cycle());
    EXPECT_EQ(names(""), "");
    list({vm});
    ASSERT_TRUE(cycle());
    EXPECT_TRUE(soon_names("esx1/vm", "disk-flat.vmdk disk.vmdk vm.cfg vm.vmx"));
}

TEST_F(cnt_cycle_test, RecordsThatReachOutsideAreLeftOut) {
    lab_vm_t good;
    lab_vm_t bad;
    bad.name = "bad";
    bad.uuid = "../../x";
    make_files(good);
    list({good, bad});
    answer("hvconfig", R"([{"hostname": ".."}, {"hostname": ""}, {"hostname": "a/b"}, {"hostname": "esx1"}, {}, 7])");
    answer("folder", R"([{"name": "..", "uuid": "f1"}, {"name": "a/b", "uuid": "f2"}, {"name": "ok", "uuid": "f3"}])");
    ASSERT_TRUE(cycle());
    EXPECT_TRUE(soon_names("esx1/vm", "disk-flat.vmdk disk.vmdk vm.cfg vm.vmx"));
    EXPECT_EQ(names(""), "esx1 ok");
    EXPECT_THAT(alerts(), Contains(HasSubstr("alert_post vm_discovery esx1:bad")));

    const ks_vm_config_t stranger = config(bad);  // a VM of the hypervisor's that the controller does not list
    EXPECT_EQ(managed_alert_post(old_snapshot_alert, "stranger", "node", "notice", "old", stranger, 0), nullptr);
    list({good});
    ASSERT_TRUE(cycle());
    const std::vector<std::string> seen = alerts();
    EXPECT_THAT(seen, Contains(HasSubstr("alert_clear vm_discovery esx1:bad")));
    EXPECT_THAT(seen, testing::Not(Contains(HasSubstr("alert_clear old_snapshot"))));
}

TEST_F(cnt_cycle_test, AlertOfAVmThatCannotBeTakenOverOutlivesItsDirectory) {
    const std::string about = " vm_discovery esx1:vm";
    const auto soon_cleared = [&] {
        return soon([&] { return std::ranges::count(alerts(), "alert_clear" + about) > 0; });
    };
    lab_vm_t vm;
    make_files(vm);
    list({vm});
    ASSERT_TRUE(cycle());
    ASSERT_TRUE(soon_cleared());
    vm.discovered = 1;
    list({vm});
    answer("vdisk?vhost_uuid=" + vm.uuid, "", 500);
    ASSERT_TRUE(cycle());
    EXPECT_EQ(names("esx1"), "");
    const std::vector<std::string> raised = alerts();
    EXPECT_THAT(raised, Contains("alert_post" + about));
    EXPECT_THAT(raised, testing::Not(Contains("alert_clear" + about)));
    list({vm});
    ASSERT_TRUE(cycle());
    EXPECT_TRUE(soon_cleared());
}

TEST_F(cnt_cycle_test, VmOfTwoHypervisorsKeepsTheAlertsOfBoth) {
    lab_vm_t first;
    first.folder = "all";
    lab_vm_t second = first;
    second.host = "esx2";
    make_files(first);
    answer("folder", R"([{"name": "all", "uuid": "f1"}])");
    list({first, second});
    ASSERT_TRUE(cycle());
    EXPECT_THAT(alerts(), Contains("alert_post vm_discovery esx2:vm"));
    EXPECT_TRUE(soon_names("all/vm", "disk-flat.vmdk disk.vmdk vm.cfg vm.vmx"));
    ASSERT_TRUE(cycle());
    ASSERT_TRUE(cycle());
    EXPECT_THAT(alerts(), testing::Not(Contains(HasSubstr("vm_discovery esx2:vm"))));
}

}  // namespace
}  // namespace mirador
