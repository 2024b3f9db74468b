// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/vm_update.h"

#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <thread>
#include <vector>

#include "appliance/exporter/vm_proxy_remove.h"
#include "appliance/lib/registry.h"
#include "appliance/lib/vm_proxy_header.h"
#include "lib/clock.h"
#include "lib/error_hash.h"
#include "tests/appliance/exporter/inventory_lab.h"
#include "tests/lib/error_number.h"
#include "vmware/lib/vmdk/datastore_path.h"

namespace mirador {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class vm_update_test : public inventory_lab_t {
  protected:
    ~vm_update_test() override {
        get_reg_settings()->cbt_percent = 0;
        get_reg_settings()->export_vm_uuid_enabled = false;
        get_reg_settings()->ondemand_refresh = false;
    }

    // One cycle's worth for a VM: what the controller says, then an update.
    void take(const lab_vm_t& vm, std::uint64_t gen = 1) {
        list({vm});
        bool updated = false;
        ASSERT_EQ(vm_state_update(config(vm), host(vm), shadow_, gen, &updated), nullptr);
    }
    errnum_t update(const lab_vm_t& vm, bool force = false, bool keep_mtime = false) {
        return number_of(vm_update(vm_dir(vm), force, keep_mtime));
    }
    void expose(const lab_vm_t& vm) {
        make_files(vm);
        take(vm);
        ASSERT_EQ(update(vm), 0);
    }
    std::string vm_dir(const lab_vm_t& vm) const {
        return shadow_ + "/" + (vm.folder.empty() ? vm.host : vm.folder) + "/" + vm.name;
    }
    vm_proxy_header_t header(const std::string& name) const {
        std::unique_ptr<vm_proxy_header_t> read;
        EXPECT_EQ(vm_proxy_read_header_checked(shadow_ + "/" + name, &read), nullptr);
        return read == nullptr ? vm_proxy_header_t{} : *read;
    }
    std::string cached(const std::string& name) const { return read_file(dir_ / "cache/ds1/vm/" + name); }
};

// A delta that was written all over is larger than the disk, by its own tables.
TEST_F(vm_update_test, DeltaThatOutgrowsItsDiskDoesNotMakeItLarger) {
    lab_vm_t vm;
    vm.disks = {{.name = "disk.vmdk", .head = "disk-000001.vmdk"}};
    make_files(vm);
    std::filesystem::resize_file(datastore_ + "/vm/disk-000001-flat.vmdk", disk_bytes + 66048);
    take(vm);
    ASSERT_EQ(update(vm), 0);
    EXPECT_EQ(header("esx1/vm/disk-flat.vmdk").statb.size, disk_bytes);
    EXPECT_EQ(header("esx1/vm/disk-flat.vmdk").can_optimize, 1U);
}

TEST_F(vm_update_test, DisksOfOneNameStandSideBySide) {
    lab_vm_t vm;
    vm.disks = {{.dir = "vm"}, {.dir = "other", .thin = true}};
    expose(vm);
    EXPECT_EQ(names("esx1/vm"), "disk(1)-flat.vmdk disk(1).vmdk disk-flat.vmdk disk.vmdk vm.cfg vm.vmx");
    const std::string descriptor = header("esx1/vm/disk(1).vmdk").path;
    EXPECT_EQ(header("esx1/vm/disk(1).vmdk").statb.size,
              static_cast<std::int64_t>(std::filesystem::file_size(descriptor)));
    EXPECT_THAT(cached("vm.cfg"), HasSubstr("vmdk.1.type = \"thin\""));

    std::filesystem::remove(descriptor);
    std::filesystem::create_directory(descriptor);  // its refresh fails
    EXPECT_NE(update(vm, true), 0);
    std::filesystem::remove(descriptor);
    vm.disks.erase(vm.disks.begin());  // the second keeps its name, and nobody takes the first one's
    vm.discovered = 1;
    take(vm, 2);
    ASSERT_EQ(update(vm), 0);
    EXPECT_EQ(names("esx1/vm"), "disk(1)-flat.vmdk disk(1).vmdk vm.cfg vm.vmx");
}

TEST_F(vm_update_test, FirstDiskOfANameGetsItThoughItIsHadLater) {
    lab_vm_t vm;
    vm.disks = {{.dir = "vm"}, {.dir = "other"}};
    make_files(vm);
    std::filesystem::rename(datastore_ + "/vm/disk.vmdk", datastore_ + "/vm/away");
    take(vm);
    ASSERT_EQ(update(vm), 0);
    EXPECT_EQ(names("esx1/vm"), "disk(1)-flat.vmdk disk(1).vmdk vm.cfg vm.vmx");
    std::filesystem::rename(datastore_ + "/vm/away", datastore_ + "/vm/disk.vmdk");
    ASSERT_EQ(update(vm, true), 0);
    EXPECT_EQ(header("esx1/vm/disk-flat.vmdk").path, datastore_ + "/vm/disk.vmdk");
    EXPECT_EQ(header("esx1/vm/disk(1)-flat.vmdk").path, datastore_ + "/other/disk.vmdk");
}

TEST_F(vm_update_test, DescriptorUnderANewNameOutlivesTheVmsFormerPlace) {
    lab_vm_t vm;
    vm.disks = {{.dir = "vm"}, {.dir = "other"}};
    expose(vm);
    vm.folder = "shelf";
    take(vm, 2);
    ASSERT_EQ(update(vm), 0);
    vm_stop_old(2);
    EXPECT_EQ(names("esx1/vm"), "-");
    const std::string descriptor = header("shelf/vm/disk(1).vmdk").path;
    EXPECT_TRUE(std::filesystem::exists(descriptor));
    vm_stop_old(3);
    EXPECT_FALSE(std::filesystem::exists(descriptor));
}

TEST_F(vm_update_test, ExtentsOfOneNameStandSideBySide) {
    lab_vm_t vm;
    vm.disks = {{.name = "x.vmdk", .extent = "d-flat.vmdk"}, {.name = "d.vmdk", .dir = "other"}};
    expose(vm);
    EXPECT_EQ(names("esx1/vm"), "d(1)-flat.vmdk d(1).vmdk d-flat.vmdk vm.cfg vm.vmx x.vmdk");
    EXPECT_EQ(header("esx1/vm/d-flat.vmdk").path, datastore_ + "/vm/x.vmdk");
    EXPECT_EQ(header("esx1/vm/d(1)-flat.vmdk").path, datastore_ + "/other/d.vmdk");
}

TEST_F(vm_update_test, DiskThatLeavesGoesInABusySecondToo) {
    lab_vm_t vm;
    vm.disks = {{.name = "a.vmdk"}, {.name = "b.vmdk"}};
    make_files(vm);
    take(vm);
    const manual_clock_t clock(1000);
    ASSERT_EQ(update(vm), 0);
    ASSERT_EQ(update(vm, true), 0);
    vm.disks.pop_back();
    vm.discovered = 1;
    take(vm, 2);
    ASSERT_EQ(update(vm), 0);
    EXPECT_EQ(names("esx1/vm"), "a-flat.vmdk a.vmdk vm.cfg vm.vmx");
}

TEST_F(vm_update_test, VmxFileIsFoundWhereItsDatastoreIsMountedNow) {
    datastore_mount_points = {dir_ / "direct", dir_ / "volumes"};
    lab_vm_t vm;
    expose(vm);
    std::filesystem::create_directories(dir_ / "direct/ds1/vm");
    std::filesystem::rename(datastore_ + "/vm/vm.vmx", dir_ / "direct/ds1/vm/vm.vmx");
    std::filesystem::remove(dir_ / "cache/ds1/vm/vm.vmx");
    ASSERT_EQ(update(vm, true), 0);
    EXPECT_THAT(cached("vm.vmx"), HasSubstr("displayName"));
}

// A hypervisor's directory goes while its VM is updated: nothing is counted twice.
TEST_F(vm_update_test, TreeMayGoUnderAnUpdate) {
    lab_vm_t vm;
    expose(vm);
    std::atomic<bool> done = false;
    std::vector<std::thread> removers;
    for (int i = 0; i < 2; i++)
        removers.emplace_back([&] {
            while (!done)
                EXPECT_EQ(vm_proxy_remove_tree(shadow_ + "/esx1"), nullptr);
        });
    for (int i = 0; i < 50; i++)
        (void)update(vm, true);
    done = true;
    for (std::thread& remover : removers)
        remover.join();
    EXPECT_EQ(update(vm, true), 0);
    EXPECT_EQ(names("esx1/vm"), "disk-flat.vmdk disk.vmdk vm.cfg vm.vmx");
}

TEST_F(vm_update_test, DiskThatCannotBeHadDoesNotTakeOthersAlong) {
    lab_vm_t vm;
    vm.disks = {{.name = "a.vmdk"}, {.name = "b.vmdk"}, {.name = "c.vmdk", .independent = true}};
    expose(vm);
    EXPECT_EQ(names("esx1/vm"), "a-flat.vmdk a.vmdk b-flat.vmdk b.vmdk vm.cfg vm.vmx");
    EXPECT_THAT(alerts(), Contains("alert_post independent_disk 564d0001:c.vmdk"));
    vm.disks.push_back({.name = "c.vmdk", .dir = "other"});
    make_disk(vm.disks.back());
    take(vm, 2);
    ASSERT_EQ(update(vm, true), 0);
    EXPECT_THAT(alerts(), Not(Contains("alert_clear independent_disk 564d0001:c.vmdk"))) << "there is another c.vmdk";
    vm.disks.pop_back();
    take(vm, 2);
    ASSERT_EQ(update(vm, true), 0);

    std::filesystem::remove(datastore_ + "/vm/a.vmdk");  // on the move: its entries stay
    ASSERT_EQ(update(vm, true), 0);
    EXPECT_EQ(names("esx1/vm"), "a-flat.vmdk a.vmdk b-flat.vmdk b.vmdk vm.cfg vm.vmx");

    vm.disks[1].head = "-";  // the controller does not know its head
    take(vm, 2);
    vm.discovered = 1;
    take(vm, 2);
    EXPECT_EQ(update(vm), ENOENT);
    EXPECT_EQ(names("esx1/vm"), "a-flat.vmdk a.vmdk b-flat.vmdk b.vmdk vm.cfg vm.vmx");
}

// Its contents would change under whoever reads it.
TEST_F(vm_update_test, DiskThatSnapshotsLeaveOutByNowIsNoLongerExported) {
    lab_vm_t vm;
    vm.disks = {{.name = "a.vmdk"}, {.name = "b.vmdk"}};
    expose(vm);
    vm.disks[1].independent = true;
    vm.snap_exists = 1;
    take(vm, 2);
    EXPECT_EQ(vm_settle_disk(vm_dir(vm) + "/a-flat.vmdk"), nullptr);
    EXPECT_EQ(number_of(vm_settle_disk(vm_dir(vm) + "/b-flat.vmdk")), EAGAIN);
    EXPECT_EQ(names("esx1/vm"), "a-flat.vmdk a.vmdk vm.cfg vm.vmx");
    EXPECT_THAT(cached("vm.cfg"), Not(HasSubstr("b.vmdk")));
    EXPECT_THAT(alerts(), Contains("alert_post independent_disk 564d0001:b.vmdk"));

    vm.disks.pop_back();
    vm.discovered = 1;
    take(vm, 3);
    ASSERT_EQ(update(vm, true), 0);
    EXPECT_THAT(alerts(), Contains("alert_clear independent_disk 564d0001:b.vmdk"));
}

TEST_F(vm_update_test, DiskThatTakesANameOverLeavesNoEntryOfItsPredecessor) {
    lab_vm_t vm;
    vm.use_cbt = true;
    vm.disks = {{.name = "a.vmdk", .extent = "a-rdm.vmdk"}};
    answer("vdisk?vhost_uuid=564d0001&name=a-corcbt.vmdk",
           R"([{"vhost_uuid": "564d0001", "name": "a-corcbt.vmdk", "changeid": "a/1", "changeid_base": "a/1"}])");
    expose(vm);
    EXPECT_EQ(names("esx1/vm"), "a-corcbt.vmdk a-rdm.vmdk a.vmdk vm.cfg vm.vmx");
    vm.disks = {{.name = "a.vmdk", .dir = "other"}};
    vm.discovered = 1;
    make_files(vm);
    take(vm, 2);
    ASSERT_EQ(update(vm), 0);
    EXPECT_EQ(names("esx1/vm"), "a-corcbt.vmdk a-flat.vmdk a.vmdk vm.cfg vm.vmx");
}

TEST_F(vm_update_test, HostileDiskPathsAreTurnedDown) {
    lab_vm_t vm;
    expose(vm);
    for (const char* paths : {R"("base_ascii_path": "/etc/passwd", "base_extent_path": "/etc/group")",
                              R"("base_ascii_path": "/x/..", "base_extent_path": "/x/y")"}) {
        vm.discovered++;
        list({vm});
        answer("vdisk?vhost_uuid=" + vm.uuid, "[{\"name\": \"x\", \"head_ascii_path\": \"" + datastore_ +
                                                  "/vm/disk.vmdk\", \"head_extent_path\": \"" + datastore_ +
                                                  "/vm/disk-flat.vmdk\", " + paths + "}]");
        bool updated = false;
        ASSERT_EQ(vm_state_update(config(vm), host(vm), shadow_, 2, &updated), nullptr);
        EXPECT_NE(update(vm), 0) << paths;
    }
    EXPECT_EQ(names("esx1/vm"), "disk-flat.vmdk disk.vmdk vm.cfg vm.vmx");
    EXPECT_THAT(alerts(), Contains("alert_post vm_discovery esx1:vm"));
}

TEST_F(vm_update_test, AttemptsAreSpacedAndTheirOutcomeIsVisible) {
    manual_clock_t clock(100000);
    lab_vm_t vm;
    expose(vm);
    get_reg_settings()->ondemand_refresh = true;
    std::filesystem::remove(datastore_ + "/vm/vm.vmx");
    std::filesystem::remove(dir_ / "cache/ds1/vm/vm.vmx");
    clock.advance(119);
    EXPECT_EQ(update(vm), 0);  // too early to look
    clock.advance(1);
    EXPECT_EQ(update(vm), ENOENT);
    EXPECT_EQ(error_hash_get("/esx1/vm")->number, ENOENT);
    EXPECT_THAT(alerts(), Contains(HasSubstr("vm_discovery esx1:vm")));
    clock.advance(29);
    EXPECT_EQ(update(vm), 0);
    clock.advance(1);
    EXPECT_EQ(update(vm), ENOENT);
}

TEST_F(vm_update_test, VmWithASnapshotIsLeftAloneUnlessForced) {
    lab_vm_t vm;
    expose(vm);
    vm.snap_exists = 1;
    vm.disks[0].head = "disk-000001.vmdk";
    make_files(vm);
    take(vm, 2);
    ASSERT_EQ(update(vm), 0);
    EXPECT_EQ(header("esx1/vm/disk-flat.vmdk").path, datastore_ + "/vm/disk.vmdk");
    const std::int32_t before = header("esx1/vm/disk-flat.vmdk").statb.mtime_sec;
    std::filesystem::last_write_time(datastore_ + "/vm/disk-000001-flat.vmdk",
                                     std::filesystem::file_time_type::clock::now() + std::chrono::hours(1));
    ASSERT_EQ(update(vm, true, true), 0);
    EXPECT_EQ(header("esx1/vm/disk-flat.vmdk").path, datastore_ + "/vm/disk-000001.vmdk");
    EXPECT_EQ(header("esx1/vm/disk-flat.vmdk").statb.mtime_sec, before);
}

// The VM writes to deltas that are not exported: its configuration names the disks below them.
TEST_F(vm_update_test, FrozenDisksStandInTheConfigurationForTheDeltasAboveThem) {
    lab_vm_t vm;
    vm.disks = {{}, {.name = "other.vmdk"}, {.name = "still.vmdk"}};
    vm.snap_exists = 1;
    make_files(vm);
    const auto delta = [this](const std::string& name, const std::string& parent) {
        write_file(datastore_ + "/vm/" + name,
                   "# Disk DescriptorFile\nversion=1\nCID=0000fffe\nparentCID=0000ffff\ncreateType=\"vmfsSparse\"\n"
                   "parentFileNameHint=\"" +
                       parent + "\"\nRW 2048 VMFSSPARSE \"delta.vmdk\"\n");
    };
    delta("disk-000001.vmdk", "disk.vmdk");
    delta("other-000001.vmdk", "other.vmdk");
    delta("other-000002.vmdk", datastore_ + "/vm/other-000001.vmdk");
    const auto vmx = [](const std::string& first, const std::string& second, const std::string& third) {
        return "displayName = \"vm\"\nscsi0:0.present = \"TRUE\"\nscsi0:0.fileName = \"" + first +
               "\"\nscsi0:1.present = \"TRUE\"\nscsi0:1.fileName = \"" + second +
               "\"\nscsi0:2.present = \"TRUE\"\nscsi0:2.fileName = \"" + third + "\"\n";
    };
    write_file(datastore_ + "/vm/vm.vmx", vmx("disk-000001.vmdk", "other-000002.vmdk", "still.vmdk"));
    take(vm);
    ASSERT_EQ(update(vm, true), 0);
    EXPECT_EQ(cached("vm.vmx"), vmx("disk.vmdk", "other.vmdk", "still.vmdk"));

    // The same before the controller has heard of them, and when a delta that it tells is gone already.
    vm.snap_exists = 0;
    vm.disks[0].head = "disk-000009.vmdk";
    take(vm);
    write_file(datastore_ + "/vm/vm.vmx",
               "annotation = \"new\"\n" + vmx("disk-000001.vmdk", "other-000002.vmdk", "still.vmdk"));
    ASSERT_EQ(update(vm, true), 0);
    EXPECT_EQ(cached("vm.vmx"), "annotation = \"new\"\n" + vmx("disk.vmdk", "other.vmdk", "still.vmdk"));
}

// A client that saw the old time would not copy the disk whole, and what it is told has changed would not be all.
TEST_F(vm_update_test, RequestToResetTrackingStandsUntilEveryDiskShowsIt) {
    const manual_clock_t clock(2'000'000'000, true);
    const std::string record = "vdisk?vhost_uuid=564d0001&name=disk-corcbt.vmdk";
    lab_vm_t vm;
    vm.use_cbt = true;
    vm.cbt_reset_time = 1000;
    const std::string base = R"([{"vhost_uuid": "564d0001", "name": "disk-corcbt.vmdk", "changeid": "a/1",
                                  "changeid_base": "a/1", "cbt_reset_time_vdisk": 1000, "flat_file_size": "1048576"}])";
    answer(record, base);
    expose(vm);
    EXPECT_EQ(header("esx1/vm/disk-flat.vmdk").statb.mtime_sec, 1000);
    EXPECT_THAT(posted("vdisk"), IsEmpty());

    vm.cbt_reset_pending = true;
    take(vm, 2);
    ASSERT_EQ(update(vm, true, true), 0);  // a snapshot's: it keeps the times
    EXPECT_EQ(header("esx1/vm/disk-flat.vmdk").statb.mtime_sec, 1000);
    answer(record, "", 500);
    ASSERT_EQ(update(vm, true), 0);
    EXPECT_THAT(posted("vdisk"), IsEmpty());
    EXPECT_THAT(posted("vmconfig"), IsEmpty());

    answer(record, base);
    ASSERT_EQ(update(vm, true), 0);
    EXPECT_EQ(header("esx1/vm/disk-flat.vmdk").statb.mtime_sec, 2'000'000'000);
    EXPECT_THAT(posted("vdisk"), ElementsAre(HasSubstr(R"("changeid_base": "uninitialized")")));
    EXPECT_THAT(posted("vmconfig"), ElementsAre(R"({ "uuid": "564d0001", "cbt_reset_pending": 0 })"));
}

}  // namespace
}  // namespace mirador
