// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/vm_state.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <filesystem>
#include <thread>

#include "appliance/exporter/controller_thr.h"
#include "appliance/exporter/vm_update.h"
#include "appliance/lib/registry.h"
#include "lib/clock.h"
#include "tests/appliance/exporter/inventory_lab.h"
#include "tests/lib/error_number.h"

namespace mirador {
namespace {

class vm_state_test : public inventory_lab_t {
  protected:
    ~vm_state_test() override { get_reg_settings()->export_vm_uuid_enabled = false; }

    errnum_t take(const lab_vm_t& vm, std::uint64_t gen, bool* updated) {
        return number_of(vm_state_update(config(vm), host(vm), shadow_, gen, updated));
    }
    errnum_t take(const lab_vm_t& vm, std::uint64_t gen = 1) {
        bool updated = false;
        return take(vm, gen, &updated);
    }
};

TEST_F(vm_state_test, UnchangedVmOnlyBearsTheCyclesNumber) {
    lab_vm_t vm;
    make_files(vm);
    list({vm});
    ASSERT_EQ(take(vm, 1), 0);
    ASSERT_EQ(vm_update(shadow_ + "/esx1/vm", false, false), nullptr);
    bool updated = true;
    ASSERT_EQ(take(vm, 2, &updated), 0);
    EXPECT_FALSE(updated);
    EXPECT_FALSE((*vm_state_get(shadow_ + "/esx1/vm")).refresh_now);
    vm.discovered = 7;
    ASSERT_EQ(take(vm, 3, &updated), 0);
    EXPECT_TRUE(updated);
    EXPECT_TRUE((*vm_state_get(shadow_ + "/esx1/vm")).refresh_now);
    vm_stop_old(3);
    EXPECT_NE(names("esx1/vm"), "-");
}

TEST_F(vm_state_test, RetiredVmGoesWithItsLastUser) {
    get_reg_settings()->export_vm_uuid_enabled = true;
    lab_vm_t vm;
    make_files(vm);
    list({vm});
    ASSERT_EQ(take(vm, 1), 0);
    ASSERT_EQ(vm_update(shadow_ + "/esx1/vm", false, false), nullptr);
    EXPECT_GT(get_fs_blocks_used(), 0);
    EXPECT_EQ(std::filesystem::read_symlink(shadow_ + "/.uuid/" + vm.uuid), shadow_ + "/esx1/vm");
    {
        const manual_clock_t clock(1000);
        const vm_state_ref_t user = vm_state_get(shadow_ + "/esx1/vm");
        vm_stop_old(2);
        EXPECT_NE(names("esx1/vm"), "-");
        EXPECT_FALSE(vm_state_get(shadow_ + "/esx1/vm"));
        EXPECT_EQ(take(vm, 3), ETIMEDOUT);  // its place is not free yet
        EXPECT_EQ(clock.slept(), 1);        // and whoever tries again and again does not spin
        EXPECT_THAT(alerts(), testing::Not(testing::Contains(testing::HasSubstr("alert_post"))));
    }
    EXPECT_EQ(names("esx1/vm"), "-");
    EXPECT_EQ(names(".uuid"), "");
    EXPECT_EQ(get_fs_blocks_used(), 0);
    EXPECT_EQ(take(vm, 3), 0);
}

TEST_F(vm_state_test, BusyVmIsLeftForLater) {
    lab_vm_t vm;
    list({vm});
    ASSERT_EQ(take(vm, 1), 0);
    manual_clock_t clock(1000);
    const vm_state_ref_t state = vm_state_get(shadow_ + "/esx1/vm");
    std::atomic<bool> held = false;
    std::atomic<bool> done = false;
    std::thread holder([&] {
        const mutex_lock_t lock((*state).mutex);
        held = true;
        while (!done)
            std::this_thread::yield();
    });
    while (!held)
        std::this_thread::yield();
    vm.discovered = 1;
    EXPECT_EQ(take(vm, 2), ETIMEDOUT);
    done = true;
    holder.join();
    EXPECT_EQ(take(vm, 2), 0);
}

TEST_F(vm_state_test, RetiringWaitsForNoUpdate) {
    lab_vm_t vm;
    list({vm});
    ASSERT_EQ(take(vm, 1), 0);
    {
        const vm_state_ref_t state = vm_state_get(shadow_ + "/esx1/vm");
        const mutex_lock_t lock((*state).mutex);
        std::thread([] { vm_stop_old(2); }).join();
        EXPECT_FALSE(vm_state_get(shadow_ + "/esx1/vm"));
        EXPECT_EQ(names("esx1/vm"), "");
    }
    EXPECT_EQ(names("esx1/vm"), "-");
}

TEST_F(vm_state_test, WaitsUntilTheControllerSeesTheSnapshots) {
    lab_vm_t vm;
    list({vm});
    ASSERT_EQ(take(vm), 0);
    manual_clock_t clock(1000);
    const std::string path = shadow_ + "/esx1/vm";
    EXPECT_EQ(vm_wait_snapshot(path + "x", 1, 300, nullptr)->number, EINVAL);
    EXPECT_EQ(number_of(vm_wait_snapshot(path, 1, 300, nullptr)), ETIME);
    EXPECT_EQ(clock.slept(), 300);
    EXPECT_EQ(vm_wait_snapshot(path, 0, 0, nullptr), nullptr);  // none known: -1
    vm.snap_exists = 2;
    ASSERT_EQ(take(vm, 2), 0);
    EXPECT_EQ(vm_wait_snapshot(path, 1, 0, nullptr), nullptr);
    EXPECT_EQ(vm_wait_snapshot(path, 0, 0, nullptr)->number, ETIME);
    vm.snap_exists = 0;
    ASSERT_EQ(take(vm, 3), 0);
    EXPECT_EQ(vm_wait_snapshot(path, 0, 0, nullptr), nullptr);
}

// Updates, cycles and look-ups of one VM at the same time.
TEST_F(vm_state_test, ComesAndGoesUnderEverybodysEyes) {
    const fast_clock_t clock(100);  // a cycle that finds the VM busy waits a second
    const std::string path = shadow_ + "/esx1/vm";
    lab_vm_t vm;
    make_files(vm);
    list({vm});
    std::atomic<bool> done = false;
    std::vector<std::thread> users;
    for (int i = 0; i < 3; i++)
        users.emplace_back([&, i] {
            while (!done) {
                (void)vm_update(path, i == 0, false);
                (void)vm_state_get(path);
            }
        });
    for (std::uint64_t gen = 1; gen < 20; gen++) {
        if (gen % 3 == 0) {
            vm_stop_old(gen);
            continue;
        }
        vm.discovered++;
        while (take(vm, gen) == ETIMEDOUT) {
        }
    }
    done = true;
    for (std::thread& user : users)
        user.join();
    vm_stop_old(100);
    EXPECT_EQ(names("esx1/vm"), "-");
}

}  // namespace
}  // namespace mirador
