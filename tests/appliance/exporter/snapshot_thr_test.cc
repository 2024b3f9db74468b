// SPDX-License-Identifier: Apache-2.0
// The thread lives once in a process: the test that starts and ends it is the first one, the others do without.
#include "appliance/exporter/snapshot_thr.h"

#include <cerrno>
#include <cstring>

#include "appliance/exporter/cnt_cycle.h"
#include "appliance/exporter/fake_vdsk.h"
#include "appliance/exporter/hv_thr.h"
#include "appliance/exporter/snapshot_command.h"
#include "appliance/exporter/snapshot_scrub.h"
#include "appliance/exporter/vm_proxy_api.h"
#include "appliance/exporter/vm_proxy_attr.h"
#include "appliance/exporter/vm_proxy_evict.h"
#include "tests/appliance/exporter/snapshot_lab.h"
#include "tests/lib/error_number.h"

namespace mirador {
namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

using use_ptr = std::shared_ptr<snapshot_use_t>;

class snapshot_thr : public snapshot_lab_t {
  protected:
    snapshot_thr() { fake_vdsk_reset(); }
    ~snapshot_thr() override {
        agent_.answer_data("remove_snapshot", "1");
        snapshot_state_shutdown();
        EXPECT_FALSE(has_snapshot());
        get_reg_settings()->max_session = 50;
    }

    use_ptr take() {
        use_ptr use;
        std::unique_ptr<vm_proxy_header_t> header;
        EXPECT_EQ(vm_proxy_read_header_checked(shadow_ + disk_path(), &header), nullptr);
        during(
            "create_snapshot", [this] { show(1); },
            [&] {
                const errdesc_t* e =
                    snapshot_use_t::take(disk_path(), shadow_ + disk_path(), header.get(), &vmname_, &ctime_, &use);
                EXPECT_EQ(e == nullptr, use != nullptr) << (e == nullptr ? "" : e->string);
            });
        return use;
    }
    // Asks for a use that must be refused; the error's number.
    errnum_t refused(const char* hv_name = "esx1") {
        std::unique_ptr<vm_proxy_header_t> header;
        EXPECT_EQ(vm_proxy_read_header_checked(shadow_ + disk_path(), &header), nullptr);
        std::strcpy(header->hv_name, hv_name);
        use_ptr use;
        const errdesc_t* e =
            snapshot_use_t::take(disk_path(), shadow_ + disk_path(), header.get(), &vmname_, &ctime_, &use);
        EXPECT_EQ(use, nullptr);
        return number_of(e);
    }
    bool has_snapshot() const { return snapshot_existed("esx1", vm_.uuid); }
    std::vector<std::string> creation() const {
        return {request("remove_snapshot", "1"), request("create_top_snapshot", "0"), request("create_snapshot", "0")};
    }
    // The old snapshot is removed before the next one is made.
    void expect_made_anew() {
        const use_ptr use = take();
        std::vector<std::string> expected = creation();
        expected.insert(expected.begin(), request("remove_snapshot", "1"));
        EXPECT_THAT(asked(), ElementsAreArray(expected));
    }
    // While the clock stands the thread makes one pass after the other.
    static bool passes_until(const std::function<bool()>& has_come) {
        for (int i = 0; i < 2500; i++) {
            if (has_come())
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return false;
    }
    // Until these removals were asked for, no others, and no snapshot is left.
    bool passes_until_removed(const std::vector<std::string>& expected) {
        std::vector<std::string> removals;
        const bool has_come = passes_until([&] {
            for (const std::string& line : asked())
                if (line.starts_with(R"(["remove_snapshot")"))
                    removals.push_back(line);
            return removals.size() >= expected.size() && !has_snapshot();
        });
        EXPECT_EQ(removals, expected);
        return has_come;
    }
    bool passes_until_asked(const std::string& request) {
        return passes_until([&] {
            const std::vector<std::string> seen = asked();
            return std::find(seen.begin(), seen.end(), request) != seen.end();
        });
    }
    static std::string data(const std::vector<std::string>& entries) {
        std::string text;
        for (const std::string& entry : entries)
            text += (text.empty() ? "" : ",") + entry;
        return R"({"response_type":"x","response_data":[)" + text + "]}";
    }
    void list_at_agent(const std::vector<std::string>& entries) { agent_.answer("list_snapshot", data(entries)); }
    // The lines about references, "ref = ..." to their ends.
    static std::vector<std::string> references() {
        std::vector<std::string> found;
        for (const std::string& line : logged())
            if (line.starts_with("snapshot_update: "))
                found.push_back(line.substr(line.rfind(line.ends_with("not found") ? "remove" : "ref = ")));
        return found;
    }

    const std::string list_request = R"(["list_snapshot", "V\\+x: .*"])";
    const std::string leftover_request = R"(["list_snapshot", "V\\+x: m-1.*"])";
    std::string vmname_;
    std::time_t ctime_ = 0;
};

TEST_F(snapshot_thr, ThreadRemovesWhatIsLeftAndWhatIsNoLongerUsed) {
    answer("vhost?vm_uuid=unknown", "[]");
    agent_.answer_once("list_snapshot", data({listed("V+x: m-1 old"), listed("V+x: m-1 gone", "unknown"),
                                              listed("V+x: m-12"), listed("VVx: m-1"), listed("x V+x: m-1")}));
    snapshot_state_init();
    EXPECT_TRUE(passes_until_removed({R"(["remove_snapshot", "vm", "564d0001", "V+x: m-1 old", "1"])"}));

    use_ptr use = take();
    clock_->advance(3000);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(has_snapshot()) << "it is in use";
    use.reset();
    testing::internal::CaptureStdout();
    set_debug_level(2);
    clock_->advance(299);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(has_snapshot());
    clock_->advance(1);
    EXPECT_TRUE(passes_until([&] { return !has_snapshot(); }));
    set_debug_level(0);
    EXPECT_THAT(logged(), Contains("snapshot_state_remove_old: vmname = vm, ref = 0, age = 300, max_idle = 300"));
    show(0);

    (void)asked();
    agent_.answer_once("create_snapshot", "");  // dies, and nobody can tell what it made
    agent_.answer_once("remove_snapshot", "{}");
    std::vector<std::string> removals = {request("remove_snapshot", "1")};
    for (int undo = 0; undo < 5; undo++) {
        agent_.answer_once("remove_snapshot", scripted_agent_t::error_reply(EIO, "no"));
        removals.push_back(request("remove_snapshot", "0"));
    }
    agent_.answer_once("list_snapshot", data({listed(name)}));
    removals.push_back(request("remove_snapshot", "1"));
    EXPECT_NE(refused(), 0);
    EXPECT_TRUE(passes_until_removed(removals)) << "the next look comes at once";
    (void)asked();
    EXPECT_TRUE(passes_until_asked(leftover_request)) << "the hypervisor may make it late";
    clock_->advance(300);
    EXPECT_TRUE(passes_until_asked(list_request)) << "an hour has gone by since the start";
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    (void)asked();
    clock_->advance(3600);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_THAT(asked(), IsEmpty());
    clock_->advance(1);
    EXPECT_TRUE(passes_until_asked(list_request));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    (void)asked();
    clock_->advance(-100000);
    EXPECT_TRUE(passes_until_asked(list_request)) << "the clock was set back";

    use = take();
    (void)asked();
    snapshot_state_shutdown();
    EXPECT_THAT(asked(), ElementsAre(request("remove_snapshot", "0"))) << "though it is in use";
    testing::internal::CaptureStdout();
    use.reset();
    EXPECT_THAT(references(), ElementsAre("remove, not found"));
}

TEST_F(snapshot_thr, UsersOfAVmShareOneSnapshot) {
    testing::internal::CaptureStdout();
    use_ptr first = take();
    EXPECT_THAT(asked(), ElementsAreArray(creation()));
    EXPECT_EQ(vmname_, "vm");
    EXPECT_EQ(ctime_, start);
    clock_->advance(10);
    use_ptr second = take();
    EXPECT_EQ(ctime_, start);
    EXPECT_THAT(asked(), IsEmpty());
    std::filesystem::rename(shadow_ + disk_path(), dir_ / "away");
    std::unique_ptr<vm_proxy_header_t> header = std::make_unique<vm_proxy_header_t>();
    header->can_snapshot = 1;
    std::strcpy(header->hv_name, "esx1");
    std::strcpy(header->vm_uuid, vm_.uuid.c_str());
    use_ptr third;
    EXPECT_NE(snapshot_use_t::take(disk_path(), shadow_ + disk_path(), header.get(), &vmname_, &ctime_, &third),
              nullptr);
    std::filesystem::rename(dir_ / "away", shadow_ + disk_path());
    second.reset();
    first.reset();
    EXPECT_THAT(references(), ElementsAre("ref = 1, create", "ref = 2, create", "ref = 1, remove", "ref = 0, remove"));

    header->can_snapshot = 0;
    vmname_.clear();
    EXPECT_EQ(snapshot_use_t::take(disk_path(), shadow_ + disk_path(), header.get(), &vmname_, &ctime_, &third),
              nullptr);
    EXPECT_EQ(vmname_, vm_.uuid);
    EXPECT_EQ(ctime_, 0);
    EXPECT_THAT(asked(), IsEmpty());
}

// A host and what manages it list the same VM: the snapshot is read, or removed, through one of them at a time.
TEST_F(snapshot_thr, VmThatIsReadThroughOneHypervisorIsLeftAloneThroughAnother) {
    const use_ptr use = take();
    (void)asked();
    testing::internal::CaptureStdout();
    EXPECT_EQ(refused("manager"), EBUSY);
    EXPECT_THAT(logged(), ElementsAre(AllOf(HasSubstr("path = " + disk_path()), HasSubstr(", create, not found"))));
    EXPECT_EQ(number_of(snapshot_scrub_ex("manager", vm_.uuid, name)), EBUSY);
    EXPECT_THAT(asked(), IsEmpty());
}

TEST_F(snapshot_thr, SnapshotThatSomebodyElseRemovedIsReadByNobodyNew) {
    use_ptr first = take();
    EXPECT_FALSE(first->is_gone());
    show(0);
    EXPECT_EQ(refused(), ESTALE);
    EXPECT_TRUE(first->is_gone());
    first.reset();
    (void)asked();
    expect_made_anew();
}

TEST_F(snapshot_thr, SnapshotOfAVmThatMovedIsLookedForWhereItIsListed) {
    const use_ptr use = take();
    vm_.folder = "shelf";
    bool updated = false;
    for (const int snapshots : {1, 0}) {
        vm_.snap_exists = snapshots;
        list({vm_});
        ASSERT_EQ(vm_state_update(config(vm_), host(vm_), shadow_, 2, &updated), nullptr);
        vm_stop_old(2);
        ASSERT_TRUE(vm_state_get(vm_dir())) << "its disks are read";
        EXPECT_EQ(use->is_gone(), snapshots == 0);
    }
}

TEST_F(snapshot_thr, SnapshotWhoseRemovalFailedIsReadByNobody) {
    (void)take();
    agent_.answer_error("remove_snapshot", EIO, "acts, and loses the answer");
    snapshot_state_shutdown();
    ASSERT_TRUE(has_snapshot());
    EXPECT_NE(refused(), 0);

    agent_.answer_data("remove_snapshot", "0");
    show(0);
    (void)asked();
    expect_made_anew();
}

TEST_F(snapshot_thr, CommandRemovesOneByName) {
    const std::string all = R"(["list_snapshot", ".*"])";
    const auto command = [&](const std::string& text) {
        return snapshot_command("/esx1/vm", vm_dir(), "snapshot_scrub" + text);
    };
    list_at_agent({listed("V+x: other"), listed("before upgrade"), listed("V+x: elsewhere", "other-vm")});
    EXPECT_EQ(command(":V+x: other"), "0:Snapshot 'V+x: other' has been removed.");
    EXPECT_THAT(asked(), ElementsAre(all, R"(["remove_snapshot", "vm", "564d0001", "V+x: other", "1"])"));
    EXPECT_TRUE(command(":before upgrade").starts_with(std::to_string(ERR_INSUFFICIENT_PERMS) + ":"));
    EXPECT_TRUE(command(":V+x: elsewhere").starts_with("2:"));
    EXPECT_TRUE(command(":V+x: oth").starts_with("2:"));
    EXPECT_EQ(asked().size(), 3U);
    EXPECT_TRUE(command("").starts_with("22:Invalid snapshot name."));
    EXPECT_TRUE(command(":").starts_with("22:Invalid snapshot name."));
    EXPECT_EQ(snapshot_command("/none", shadow_ + "/none", "snapshot_scrub:x"),
              "22:Invalid VM folder name '/none' (2).");
    EXPECT_EQ(snapshot_command("/esx1", shadow_, "snapshot_scrub:x"),
              "22:Invalid VM folder name '/esx1', .vmx file is missing.");

    use_ptr use = take();
    EXPECT_EQ(command(":mine"), "16:Snapshot 'mine' is still in use and cannot be removed.");
    use.reset();
    (void)asked();
    testing::internal::CaptureStdout();
    EXPECT_EQ(command(":mine"), "11:Removing snapshot 'mine' is in progress.");
    EXPECT_THAT(logged(), ElementsAre("INFO: Removing snapshot 'mine' is in progress."));

    std::size_t room = 0;
    EXPECT_EQ(vm_proxy_getxattr("/esx1/vm", vm_dir(), "snapshot_scrub:V+x: other", nullptr, &room), nullptr);
    EXPECT_EQ(room, snapshot_command_max);
    EXPECT_THAT(asked(), IsEmpty()) << "who asks for the length gives no order";
}

TEST_F(snapshot_thr, OldSnapshotsOfOthersAreReportedAndOursRemoved) {
    constexpr std::time_t hour = 3600;
    get_reg_settings()->snapshot_max_life = static_cast<int>(10 * hour);
    snapshot_list_t list;
    bool had_identity = false;
    const auto created = [](std::time_t age) { return start - age; };
    list_at_agent({listed("V+x: other", vm_.uuid, created(23 * hour + 59)), listed("V+x: m-1", vm_.uuid, 7),
                   listed("V+x: m-10", "vm-2", created(49 * hour)), listed("V+x: new", "vm-3", created(10 * hour)),
                   listed("before upgrade", "vm-4", 7)});
    answer("vhost?vm_uuid=vm-2", "[]");
    testing::internal::CaptureStdout();
    EXPECT_EQ(snapshot_scrub(&list, start, &had_identity), nullptr);
    EXPECT_THAT(logged(), ElementsAre("'vm' on hypervisor 'esx1' has snapshot 'V+x: other' created over 23 hours ago",
                                      "'vm' on hypervisor 'esx1' has snapshot 'V+x: m-10' created over 2 days ago"));
    EXPECT_THAT(alerts(), testing::IsSupersetOf({HasSubstr("alert_post old_snapshot 564d0001"),
                                                 HasSubstr("alert_post old_snapshot vm-2")}));
    ASSERT_EQ(list_count(list), 1);
    const snapshot_state_ptr ours = snapshot_state_find(list, "esx1", vm_.uuid);
    EXPECT_TRUE(ours->is_leftover() && ours->snapshot_created);
    EXPECT_EQ(ours->snapshotname, "V+x: m-1");
    EXPECT_TRUE(had_identity);

    clock_->advance(hour);
    list_at_agent({listed("V+x: m-1", vm_.uuid, 7), listed("V+x: m-10", "vm-2", created(49 * hour))});
    EXPECT_EQ(snapshot_scrub(&list, start + hour, &had_identity), nullptr);
    EXPECT_EQ(list_count(list), 1) << "it is held already";
    EXPECT_THAT(alerts(), Not(Contains(HasSubstr("alert_clear old_snapshot vm-2"))));
    agent_.answer_error("list_snapshot", EIO, "no");
    EXPECT_EQ(snapshot_scrub(&list, start + 2 * hour, &had_identity), nullptr);
    bool saw_all = true;
    EXPECT_EQ(snapshot_state_find_leftover(&list, &saw_all), nullptr);
    EXPECT_FALSE(saw_all);
    get_reg_settings()->snapshot_max_life = 172800;

    (void)asked();
    get_reg_settings()->publish_names({.appliance_uuid = "node", .master_uuid = "m-1", .vendor_id = ""});
    EXPECT_NE(snapshot_scrub(&list, start + 2 * hour, &had_identity), nullptr);
    EXPECT_FALSE(had_identity);
    EXPECT_NE(snapshot_state_find_leftover(&list, &saw_all), nullptr);
    EXPECT_NE(snapshot_scrub_ex("esx1", vm_.uuid, "V+x: other"), nullptr);
    EXPECT_THAT(asked(), IsEmpty());
}

TEST_F(snapshot_thr, VmWithASnapshotStaysInTheTree) {
    const auto cycle = [&](std::uint64_t gen, const std::vector<lab_vm_t>& vms) {
        user_folders_t folders;
        list(vms);
        EXPECT_TRUE(cnt_cycle_run({.root = shadow_, .gen = gen, .goes_on = [] { return true; }}, &folders));
    };
    const std::string about = " user_defined_folder " + vm_dir();
    lab_vm_t other;
    other.name = "other";
    other.uuid = "564d0009";
    use_ptr use = take();
    cycle(2, {other});
    EXPECT_TRUE(vm_state_get(vm_dir()));
    const std::vector<std::string> seen = alerts();
    EXPECT_THAT(seen, Contains("alert_post" + about));
    EXPECT_THAT(seen, Not(Contains("alert_clear" + about)));
    EXPECT_EQ(vm_wait_snapshot(vm_dir(), 0, 300, nullptr)->number, EINVAL);  // nobody will tell

    cycle(3, {vm_, other});
    EXPECT_THAT(alerts(), Contains("alert_clear" + about));
    EXPECT_EQ(vm_wait_snapshot(vm_dir(), 0, 0, nullptr)->number, ETIME);
    hv_thr_stop_all();
    use.reset();
    snapshot_state_shutdown();
    vm_stop_old(4);
    EXPECT_FALSE(vm_state_get(vm_dir()));
}

TEST_F(snapshot_thr, OnlyWhatAnOpenTookIsGivenBack) {
    fake_vdsk().device = write_file(dir_ / "device", std::string(disk_bytes, 'd'));
    std::unique_ptr<fuse_fh_t> reader;
    std::unique_ptr<fuse_fh_t> second;
    testing::internal::CaptureStdout();
    during(
        "create_snapshot", [this] { show(1); },
        [&] { EXPECT_EQ(vm_proxy_open(disk_path(), shadow_ + disk_path(), &reader), nullptr); });
    ASSERT_NE(reader, nullptr);

    // A cookie that only an attribute query made goes.
    std::filesystem::copy(shadow_ + disk_path(), shadow_ + "/esx1/vm/twin-flat.vmdk");
    std::size_t room = 0;
    EXPECT_EQ(
        vm_proxy_getxattr("/esx1/vm/twin-flat.vmdk", shadow_ + "/esx1/vm/twin-flat.vmdk", "vm_uuid", nullptr, &room),
        nullptr);
    EXPECT_EQ(vm_proxy_evict(true), nullptr);

    // A second open fails and takes the cookie with it.
    std::filesystem::rename(fake_vdsk().device, dir_ / "away");
    EXPECT_NE(vm_proxy_open(disk_path(), shadow_ + disk_path(), &second), nullptr);
    std::filesystem::rename(dir_ / "away", fake_vdsk().device);
    EXPECT_THAT(references(), ElementsAre("ref = 1, create"));

    testing::internal::CaptureStdout();
    EXPECT_EQ(vm_proxy_open(disk_path(), shadow_ + disk_path(), &second), nullptr);  // a cookie of its own
    EXPECT_EQ(vm_proxy_release(disk_path(), std::move(reader)), nullptr);
    EXPECT_EQ(fake_vdsk().alive, 1);
    EXPECT_EQ(vm_proxy_release(disk_path(), std::move(second)), nullptr);
    EXPECT_EQ(vm_proxy_evict(true), nullptr);
    EXPECT_THAT(references(), ElementsAre("ref = 2, create", "ref = 1, remove", "ref = 0, remove"));
    std::filesystem::remove(shadow_ + "/esx1/vm/twin-flat.vmdk");
}

}  // namespace
}  // namespace mirador
