// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/snapshot_make.h"

#include <cerrno>

#include "appliance/exporter/snapshot_remove.h"
#include "appliance/exporter/snapshot_scrub.h"
#include "lib/error_hash.h"
#include "tests/appliance/exporter/snapshot_lab.h"
#include "tests/lib/error_number.h"

namespace mirador {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;

class snapshot_make : public snapshot_lab_t {
  protected:
    ~snapshot_make() override { error_hash_save("/esx1/vm", nullptr); }

    // Makes a snapshot; the controller shows it while the agent makes it, `shown` of the VM in all.
    errnum_t make(int shown = 1) {
        errnum_t number = 0;
        const snapshot_request_t request{
            disk_path(), shadow_ + disk_path(),      get_reg_settings()->names().master_uuid, "esx1",
            vm_.uuid,    [this] { return goes_on_; }};
        during(
            "create_snapshot", [&] { show(shown); },
            [&] {
                const errdesc_t* e = snapshot_state_new(request, &made_);
                text_ = e == nullptr ? "" : e->string;
                number = number_of(e);
            });
        return number;
    }
    bool is_locked() const { return snapshot_state_is_locked(vm_dir()); }

    snapshot_state_ptr made() {
        EXPECT_EQ(make(), 0) << text_;
        (void)asked();
        if (made_.state != nullptr)
            list_add(list_, made_.state);
        return made_.state;
    }
    void remove_old(std::time_t now) {
        snapshot_state_remove_old(&list_, {.now = now, .goes_on = [] { return true; }});
    }

    std::string text_;
    bool goes_on_ = true;
    snapshot_made_t made_;
    snapshot_list_t list_;
};

TEST_F(snapshot_make, StepsComeInOrderAndTheVmIsLockedAfterwards) {
    vm_.quiesce = true;
    vm_.suffix = "nightly-of-the-month";
    show(0);
    testing::internal::CaptureStdout();
    ASSERT_EQ(make(), 0);
    EXPECT_THAT(logged(), ElementsAre("Creating snapshot V+x: m-1 nightly-of-the-month on vm esx1",
                                      EndsWith("/vm.vmsd does not list the snapshot 'V+x: m-1 nightly-of-the-month'")));
    const auto step = [](const std::string& method, const char* last) {
        return R"([")" + method + R"(", "vm", "564d0001", "V+x: m-1 nightly-of-the-month", ")" + last + R"("])";
    };
    EXPECT_THAT(asked(), ElementsAre(step("remove_snapshot", "1"), step("create_top_snapshot", "1"),
                                     step("create_snapshot", "1")));
    EXPECT_EQ(clock_->slept(), 0);
    EXPECT_TRUE(made_.state->quiesce && made_.state->snapshot_created);
    EXPECT_EQ(made_.state->ctime, start);
    EXPECT_EQ(made_.state->ref, 0);

    show(0);  // the lock alone keeps the VM's directory as it is
    EXPECT_TRUE(is_locked());
    ASSERT_EQ(vm_update(vm_dir(), false, false), nullptr);
    EXPECT_TRUE((*vm_state_get(vm_dir())).refresh_now);
    made_.state.reset();
    ASSERT_EQ(vm_update(vm_dir(), false, false), nullptr);
    EXPECT_FALSE((*vm_state_get(vm_dir())).refresh_now);
}

TEST_F(snapshot_make, BusyHypervisorIsTriedAgainWithinOneBudget) {
    const char* const orphan = "WARNING: Removing orphan snapshot(s), retry (%d)";
    const char* const top =
        "WARNING: Creating top snapshot: another task is in progress, pause 15 sec and retry (%d)...";
    const char* const own = "WARNING: Another task is in progress, pause 15 sec and retry (%d)...";
    struct case_t {
        struct {
            const char* method;
            errnum_t error;
            int times;
            const char* text;
        } failures[3];
        errnum_t expected;
        std::time_t slept;
    };
    const case_t cases[] = {
        {{{"remove_snapshot", ENOENT, 3, orphan}}, 0, 0},
        {{{"remove_snapshot", EALREADY, 2, orphan}}, 0, 30},
        {{{"remove_snapshot", ENOENT, 1, orphan},
          {"create_top_snapshot", EALREADY, 1, top},
          {"create_snapshot", EALREADY, 10, own}},
         0,
         165},
        {{{"create_top_snapshot", EALREADY, 5, top}, {"create_snapshot", EALREADY, 8, own}}, EALREADY, 180},
        {{{"remove_snapshot", ENOENT, 13, orphan}}, ENOENT, 0},
        {{{"remove_snapshot", EIO, 1, nullptr}}, EIO, 0},
        {{{"create_top_snapshot", EIO, 1, nullptr}}, EIO, 0},
        {{{"create_snapshot", ENOENT, 1, nullptr}}, ENOENT, 0},
    };
    for (const case_t& c : cases) {
        std::vector<std::string> warnings;
        for (const auto& failure : c.failures)
            for (int i = 0; i < failure.times; i++) {
                agent_.answer_once(failure.method, scripted_agent_t::error_reply(failure.error, "no"));
                if (const int retry = static_cast<int>(warnings.size()) + 1; failure.text != nullptr && retry <= 12)
                    warnings.push_back(std::string(failure.text)
                                           .replace(std::string(failure.text).find("%d"), 2, std::to_string(retry)));
            }
        const std::time_t before = clock_->slept();
        testing::internal::CaptureStdout();
        EXPECT_EQ(make(), c.expected) << text_;
        std::vector<std::string> lines = logged();
        std::erase_if(lines, [](const std::string& line) { return !line.starts_with("WARNING"); });
        EXPECT_EQ(lines, warnings);
        EXPECT_EQ(clock_->slept() - before, c.slept);
        // What failed after the first order to make a snapshot is undone, without waiting for it.
        const bool undone = c.expected != 0 && std::string(c.failures[0].method) != "remove_snapshot";
        EXPECT_EQ(asked().back(),
                  c.expected == 0 ? request("create_snapshot", "0") : request("remove_snapshot", undone ? "0" : "1"));
        EXPECT_EQ(made_.left_behind, undone);
        EXPECT_EQ(is_locked(), c.expected == 0);
        made_ = {};
        show(0);
    }
}

TEST_F(snapshot_make, LostReplyMayMeanASnapshotWhichIsRemovedAgain) {
    agent_.answer_once("create_snapshot", "");  // acts and dies
    EXPECT_NE(make(), 0);
    EXPECT_THAT(asked(), testing::IsSupersetOf({request("create_snapshot", "0"), request("remove_snapshot", "0")}));
    EXPECT_TRUE(made_.left_behind);  // the hypervisor may still be at it
    EXPECT_EQ(clock_->slept(), 0);
    show(0);

    agent_.answer_once("remove_snapshot", "{}");
    agent_.answer_error("remove_snapshot", EIO, "no");
    agent_.answer_once("create_top_snapshot", "");
    testing::internal::CaptureStdout();
    EXPECT_NE(make(), 0);
    const std::vector<std::string> lines = logged();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "Removing snapshot V+x: m-1 on vm esx1"), 5);
    EXPECT_EQ(clock_->slept(), 4);
    EXPECT_TRUE(made_.left_behind);
    EXPECT_FALSE(is_locked());
}

TEST_F(snapshot_make, ControllerMustTellWhatWasFrozen) {
    struct {
        const char* listed;  // by the agent before
        int shown_before;
        int shown;
        errnum_t expected;
        const char* text;
        std::time_t slept;
    } const cases[] = {
        {"", 0, 0, ETIME, "Cannot find 1 snapshots on %s in 300 seconds, only found 0 snapshots", 300},
        {"", 1, 1, ETIME, "%s has 0 snapshots, and still shows 1", 300},  // one that is gone
        {"V+x: other", 1, 1, ETIME, "Cannot find 2 snapshots on %s in 300 seconds, only found 1 snapshots", 300},
        {"V+x: other", 1, 2, 0, "", 0},
        {"V+x: other", 0, 1, 0, "", 0},  // the controller counts this appliance's only
        {"before upgrade", 1, 1, ETIME, "%s has 0 snapshots, and still shows 1", 300},
    };
    for (const auto& c : cases) {
        show(c.shown_before);
        agent_.answer_data("list_snapshot", std::string(c.listed).empty()
                                                ? "[]"
                                                : "[" + listed(c.listed) + "," + listed("V+x: m-1", "other-vm") + "]");
        const std::time_t before = clock_->slept();
        EXPECT_EQ(make(c.shown), c.expected) << c.text;
        std::string text = c.text;
        if (const std::size_t at = text.find("%s"); at != std::string::npos)
            text.replace(at, 2, vm_dir());
        EXPECT_EQ(text_, text);
        EXPECT_EQ(clock_->slept() - before, c.slept);
        EXPECT_EQ(made_.state != nullptr, c.expected == 0);
        made_ = {};
    }
    show(0);
    goes_on_ = false;
    EXPECT_EQ(make(0), ERR_CANCELLED) << "the daemon ends";
}

TEST_F(snapshot_make, RefusesWhatItCannotName) {
    vm_.suffix = "123456789012345678901";
    show(0);
    EXPECT_EQ(make(), EINVAL);
    EXPECT_EQ(text_, "Length of snapshot suffix (123456789012345678901) is larger than 20 characters.");
    answer("vhost?vm_uuid=564d0001", "[]");
    EXPECT_EQ(make(), EINVAL);
    EXPECT_EQ(text_,
              "Cannot find VM config for vm_uuid 564d0001 (hv_name esx1, path /esx1/vm/disk-flat.vmdk), the "
              "uuid may be invalid.");
    for (const auto& [master, vendor] : {std::pair{"", "V+x"}, {"m-1", ""}}) {
        get_reg_settings()->publish_names({.appliance_uuid = "node", .master_uuid = master, .vendor_id = vendor});
        EXPECT_EQ(make(), ERR_NOT_AVAILABLE);
    }
    EXPECT_THAT(asked(), IsEmpty());
    EXPECT_FALSE(is_locked());
}

// A host and what manages it list the same VM, so the same snapshot.
TEST_F(snapshot_make, NothingIsRemovedBelowAReaderThroughAnotherHypervisor) {
    const auto reader = std::make_shared<snapshot_state_t>();
    reader->hvname = "manager";
    reader->vmname = "vm";
    reader->vmuuid = vm_.uuid;
    reader->vm_shadow_path = vm_dir();
    reader->ref = 1;
    list_add(list_, reader);
    agent_.answer_data("list_snapshot", "[" + listed(name) + "]");
    bool saw_all = false;
    EXPECT_EQ(snapshot_state_find_leftover(&list_, &saw_all), nullptr);
    EXPECT_EQ(list_count(list_), 1);

    reader->ref = 0;
    reader->atime = start;
    EXPECT_EQ(snapshot_state_find_leftover(&list_, &saw_all), nullptr);
    EXPECT_EQ(list_count(list_), 2);
    EXPECT_FALSE(reader->removal_begun);
    (void)asked();
    reader->ref = 1;
    remove_old(start);
    EXPECT_THAT(asked(), IsEmpty());
    reader->ref = 0;
    remove_old(start);
    EXPECT_THAT(asked(), ElementsAre(request("remove_snapshot", "0")));
    EXPECT_EQ(list_count(list_), 1);
    EXPECT_TRUE(reader->removal_begun) << "it may have been this one";
}

TEST_F(snapshot_make, BlockingRemovalWaitsUntilTheVmShowsNone) {
    const std::string slow =
        "Snapshot of 'vm' did not go away immediately. It may be consolidating in the background, which is normal.";
    struct {
        bool blocking;
        const char* removed;
        int shown;
        std::time_t slept;
        bool updated;
        bool told;
    } const cases[] = {
        {true, "1", 0, 0, true, false},
        {true, "1", 1, 300, false, true},
        {true, "0", 1, 0, false, false},
        {false, "1", 1, 0, false, false},
    };
    for (const auto& c : cases) {
        const snapshot_state_ptr state = made();
        agent_.answer_data("remove_snapshot", c.removed);
        (void)asked();
        const std::time_t before = clock_->slept();
        testing::internal::CaptureStdout();
        set_debug_level(1);
        during(
            "remove_snapshot", [&] { show(c.shown); },
            [&] {
                snapshot_state_remove_old(
                    &list_, {.now = start + 10'000, .blocking = c.blocking, .goes_on = [] { return true; }});
            });
        set_debug_level(0);
        const std::vector<std::string> lines = logged();
        EXPECT_THAT(asked(), ElementsAre(request("remove_snapshot", c.blocking ? "1" : "0")));
        EXPECT_EQ(clock_->slept() - before, c.slept);
        EXPECT_EQ(std::count(lines.begin(), lines.end(), slow), c.told ? 1 : 0);
        EXPECT_EQ(std::count(lines.begin(), lines.end(), vm_dir() + " doing full update"), c.updated ? 1 : 0);
        EXPECT_TRUE(list_empty(list_));
        agent_.answer_data("remove_snapshot", "0");
        show(0);
    }
}

TEST_F(snapshot_make, RemovalThatFailsIsTriedAgainAndRemembered) {
    const std::string last = "ERROR: failed to remove snapshot V+x: m-1 on vm (attempted for 12 times)";
    struct {
        errnum_t error;
        bool is_last;
        bool goes_on;
        int attempts;
        bool told;
    } const cases[] = {
        {EIO, false, true, 12, true}, {EALREADY, false, true, 12, true}, {EINVAL, false, true, 1, false},
        {EIO, true, true, 1, false},  {EIO, false, false, 1, false},
    };
    for (const auto& c : cases) {
        const snapshot_state_ptr state = made();
        agent_.answer_error("remove_snapshot", c.error, "no such luck");
        const std::time_t before = clock_->slept();
        testing::internal::CaptureStdout();
        snapshot_state_remove_old(&list_,
                                  {.now = start + 10'000, .is_last = c.is_last, .goes_on = [&c] { return c.goes_on; }});
        const std::vector<std::string> lines = logged();
        EXPECT_EQ(asked().size(), c.attempts);
        EXPECT_EQ(clock_->slept() - before, 15 * (c.attempts - 1));
        EXPECT_EQ(!lines.empty() && lines.back() == last, c.told);
        EXPECT_FALSE(is_locked());
        ASSERT_EQ(list_count(list_), 1);
        const errdesc_t* saved = error_hash_get("/esx1/vm");
        ASSERT_EQ(number_of(saved), c.error);
        EXPECT_THAT(saved->string, testing::HasSubstr("no such luck"));
        error_hash_save("/esx1/vm", nullptr);

        agent_.answer_data("remove_snapshot", "1");
        answer("hvconfig", "", 500);  // the controller cannot say where the hypervisor is
        remove_old(start + 10'000);
        EXPECT_TRUE(list_empty(list_));
        agent_.answer_data("remove_snapshot", "0");
        show(0);
    }
}

TEST_F(snapshot_make, RemovalBeforeAnOpenWaitsForAnotherTask) {
    const snapshot_state_ptr state = made();
    const std::time_t before = clock_->slept();
    agent_.answer_once("remove_snapshot", scripted_agent_t::error_reply(EALREADY, "another task"));
    EXPECT_EQ(snapshot_state_destroy_waiting(state.get(), [] { return true; }), nullptr);
    EXPECT_EQ(asked().size(), 2U);
    EXPECT_EQ(clock_->slept() - before, 15);
    list_delete(list_, state);
}

TEST_F(snapshot_make, SnapshotOfAVmThatHasLeftIsGivenUp) {
    for (const char* elsewhere : {"[]", R"([{"hv_hostname": "esx2"}])"}) {
        const snapshot_state_ptr state = made();
        agent_.answer_error("remove_snapshot", EINVAL, "no such virtual machine");
        answer("vhost?vm_uuid=" + vm_.uuid, "", 500);
        remove_old(start + 10'000);
        EXPECT_EQ(list_count(list_), 1) << "the controller does not tell";
        answer("vhost?vm_uuid=" + vm_.uuid, elsewhere);
        remove_old(start + 10'000);
        EXPECT_TRUE(list_empty(list_)) << elsewhere;
        agent_.answer_data("remove_snapshot", "0");
        show(0);
    }
}

}  // namespace
}  // namespace mirador
