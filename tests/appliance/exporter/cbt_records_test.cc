// SPDX-License-Identifier: Apache-2.0
// The controller's records of changed-block files, and what is decided by them.
#include <gmock/gmock.h>

#include <cerrno>
#include <filesystem>

#include "appliance/exporter/cbt_changeid.h"
#include "appliance/exporter/cbt_vdisk.h"
#include "appliance/exporter/crash.h"
#include "appliance/exporter/flat_mtime.h"
#include "appliance/exporter/vm_state.h"
#include "controller/lib/json_records.h"
#include "lib/clock.h"
#include "lib/cor_string.h"
#include "lib/tool_paths.h"
#include "tests/appliance/exporter/inventory_lab.h"
#include "tests/lib/error_number.h"

namespace mirador {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using id_t = std::optional<std::string>;

class cbt_records_test : public inventory_lab_t {
  protected:
    const std::string uuid_ = "564d0001";
    const std::string name_ = "disk-corcbt.vmdk";
    const std::string object_ = "vdisk?vhost_uuid=564d0001&name=disk-corcbt.vmdk";

    // Has the controller hold a record with these members.
    void hold(const std::string& members) {
        answer(object_, R"([{"vhost_uuid": "564d0001", "name": "disk-corcbt.vmdk")" +
                            (members.empty() ? "" : ", " + members) + "}]");
    }

    // "<changeid> <prev> <incr> <base> <percent> <reset time> <size>" of each record posted since the last call.
    std::vector<std::string> records() {
        const std::vector<std::string> bodies = posted("vdisk");
        std::vector<std::string> texts;
        for (; seen_ < bodies.size(); seen_++) {
            const json_ptr object(json_tokener_parse(bodies[seen_].c_str()));
            const ks_vdisk_t vdisk = json_to_vdisk(object.get());
            EXPECT_EQ(vdisk.vhost_uuid, uuid_);
            EXPECT_EQ(vdisk.name, name_);
            texts.push_back(cor_format("%s %s %s %s %u %u %jd", ks_text(vdisk.changeid).c_str(),
                                       vdisk.changeid_prev.value_or("-").c_str(),
                                       vdisk.changeid_incr.value_or("-").c_str(),
                                       vdisk.changeid_base.value_or("-").c_str(), vdisk.corcbt_size_percentage,
                                       vdisk.cbt_reset_time_vdisk, static_cast<std::intmax_t>(vdisk.flat_file_size)));
        }
        return texts;
    }

  private:
    std::size_t seen_ = 0;
};

TEST_F(cbt_records_test, ServedChangeIdIsNotedBesideWhatStandsThere) {
    hold(R"("changeid": "a/1", "changeid_base": "a/0", "changeid_incr": "a/1", "corcbt_size_percentage": 7,
            "cbt_reset_time_vdisk": 9, "flat_file_size": "512")");
    EXPECT_EQ(update_cbt_vdisk(uuid_, name_, "a/2"), nullptr);
    EXPECT_THAT(records(), ElementsAre("a/2 a/1 a/1 a/0 7 9 512"));
    EXPECT_EQ(update_cbt_vdisk(uuid_, name_, "a/1"), nullptr);
    EXPECT_EQ(raise_cbt_vdisk_percentage(uuid_, name_, 7), nullptr);
    EXPECT_EQ(raise_cbt_vdisk_percentage(uuid_, name_, 5), nullptr);
    EXPECT_THAT(records(), IsEmpty()) << "nothing new";
    EXPECT_EQ(raise_cbt_vdisk_percentage(uuid_, name_, 120), nullptr);
    EXPECT_THAT(records(), ElementsAre("a/1 - a/1 a/0 100 9 512"));

    answer(object_, "[]");
    EXPECT_EQ(update_cbt_vdisk(uuid_, name_, "b/1"), nullptr);
    EXPECT_THAT(records(), ElementsAre("b/1 uninitialized - - 5 0 0")) << "a record of its own";
    EXPECT_EQ(update_cbt_vdisk(uuid_, name_, "")->number, ERR_INVALID_ARG);

    answer("POST vdisk", "", 500);
    EXPECT_EQ(update_cbt_vdisk(uuid_, name_, "b/1")->number, EAGAIN);
    EXPECT_EQ(records().size(), 2U) << "tried twice";
}

TEST_F(cbt_records_test, ResetForgetsTheIncrementalChangeIdAlone) {
    const std::string members = R"("changeid": "a/2", "changeid_base": "a/0", "changeid_incr": )";
    hold(members + R"("a/1")");
    reset_cbt_vdisk(uuid_, name_, nullptr);
    reset_cbt_vdisk_path(uuid_, "/esx1/vm/" + name_);
    const std::string expected = "a/2 - uninitialized a/0 5 0 0";
    EXPECT_THAT(records(), ElementsAre(expected, expected));
    ks_vdisk_t seen;
    reset_cbt_vdisk(uuid_, name_, &seen);  // nothing to forget when it was fetched
    seen.changeid_incr = "a/1";
    reset_cbt_vdisk(uuid_, name_, &seen);
    EXPECT_THAT(records(), ElementsAre(expected));
    hold(members + R"("uninitialized")");
    reset_cbt_vdisk(uuid_, name_, &seen);  // it has changed since
    reset_cbt_vdisk_path(uuid_, "/esx1/vm/");
    reset_cbt_vdisk("", name_, nullptr);
    answer(object_, "[]");
    reset_cbt_vdisk(uuid_, name_, nullptr);
    EXPECT_THAT(records(), IsEmpty());
}

TEST_F(cbt_records_test, StartForgetsTheIncrementalChangeIdsOfAllDisks) {
    answer("vdisk", R"([{"vhost_uuid": "other", "name": "a-corcbt.vmdk", "changeid_incr": "uninitialized"},
                        {"vhost_uuid": "564d0001", "name": "disk.vmdk"},
                        {"vhost_uuid": "564d0001", "name": "disk-corcbt.vmdk", "changeid_incr": "a/1"}])");
    hold(R"("changeid": "a/1", "changeid_incr": "a/1")");
    crash_recover_reset_cbt_vdisk();
    EXPECT_THAT(records(), ElementsAre("a/1 - uninitialized - 5 0 0"));
}

TEST_F(cbt_records_test, OnlyAnExpectedChangeIdPasses) {
    const struct {
        id_t expected;
        const char* received;
        bool passes;
    } cases[] = {
        {std::nullopt, "a/2", true}, {"", "a/2", true},        {"uninitialized", "a/2", true}, {"a/2", "a/2", true},
        {"a/1", "a/2", true},        {"x/y/1", "x/y/2", true}, {"abc", "abcd", true},          {"abcd", "abc", false},
        {"a/1", "b/1", false},       {"a/1", "", false},       {"x/y/1", "x/z/1", false},      {"ab", "", false},
    };
    ks_vm_config_t vmc;
    vmc.vm_name = "vm";
    vmc.hv_hostname = "esx1";
    ks_vdisk_t vdisk;
    for (const auto& c : cases) {
        vdisk.changeid = c.expected;
        const errdesc_t* e = check_cbt_changeid(uuid_, name_, c.received, &vdisk, vmc, false);
        EXPECT_EQ(e == nullptr, c.passes) << ks_text(c.expected) << " " << c.received;
        EXPECT_TRUE(e == nullptr || e->number == ERR_UNMATCHED);
    }
    EXPECT_EQ(check_cbt_changeid(uuid_, name_, "b/1", nullptr, vmc, false), nullptr);
    EXPECT_NE(check_cbt_changeid(uuid_, name_, "", nullptr, vmc, true), nullptr) << "none was to be had";
}

TEST_F(cbt_records_test, UnexpectedChangeIdIsToldOnce) {
    ks_vm_config_t vmc;
    vmc.vm_name = "vm";
    vmc.hv_hostname = "esx1";
    ks_vdisk_t vdisk;
    vdisk.changeid = "a/1";
    answer("POST vmconfig", "", 500);
    EXPECT_STREQ(check_cbt_changeid(uuid_, name_, "b/1", &vdisk, vmc, false)->string,
                 "Unexpected new changeid: unmatched");
    EXPECT_THAT(alerts(), IsEmpty()) << "the next open tells it";
    answer("POST vmconfig", "");
    EXPECT_NE(check_cbt_changeid(uuid_, name_, "b/1", &vdisk, vmc, false), nullptr);
    EXPECT_EQ(posted("vmconfig").back(), R"({ "uuid": "564d0001", "cbt_reset_time": 1 })");
    EXPECT_THAT(alerts(), ElementsAre("alert_post unexpected_changeid vm:esx1"));
    vmc.cbt_reset_time = 1;
    EXPECT_NE(check_cbt_changeid(uuid_, name_, "b/1", &vdisk, vmc, false), nullptr);
    EXPECT_EQ(posted("vmconfig").size(), 2U);
}

// The first open of a flat disk: what its header tells as change id, and what becomes of the record.
class cbt_base_test : public cbt_records_test {
  protected:
    cbt_base_test() {
        tool_paths().tmp_dir = dir_ / "tmp";
        std::filesystem::create_directories(tool_paths().tmp_dir);
        vm_.use_cbt = true;
        say("exit 99");
    }

    // What the script does with its results file, "$r".
    void say(const std::string& body) {
        tool_paths().cbt_getblocklist =
            write_script(dir_ / "script", R"(while [ "$1" != --resultsfile ]; do shift; done; r="$2"; echo run >> )" +
                                              (dir_ / "runs") + "\n" + body + "\n");
    }

    // "<error number> <change id>".
    std::string open() {
        list({vm_});
        bool updated = false;
        EXPECT_EQ(vm_state_update(config(vm_), host(vm_), shadow_, ++gen_, &updated), nullptr);
        vm_proxy_cookie_t cookie;
        cookie.path = "/esx1/vm/disk-flat.vmdk";
        cookie.shadow_path = shadow_ + cookie.path;
        const mutex_lock_t lock(cookie.mutex);
        cor_safe_strncpy(cookie.header.vm_uuid, uuid_.c_str(), sizeof cookie.header.vm_uuid);
        cor_safe_strncpy(cookie.header.hv_name, "esx1", sizeof cookie.header.hv_name);
        std::string changeid = "earlier";
        const errdesc_t* e = get_cbt_changeid(cookie, &changeid);
        EXPECT_TRUE(std::filesystem::is_empty(tool_paths().tmp_dir));
        return cor_format("%d %s", number_of(e), changeid.c_str());
    }

    lab_vm_t vm_;

  private:
    std::uint64_t gen_ = 0;
};

TEST_F(cbt_base_test, FullCopyHasTheRecordsBaseOrMakesOne) {
    hold(R"("changeid": "a/2", "changeid_base": "a/1")");
    EXPECT_EQ(open(), "0 a/1");
    EXPECT_EQ(read_file(dir_ / "runs"), "") << "nobody was asked";
    EXPECT_THAT(records(), IsEmpty());

    say(R"(printf 'changeid: a/3\nlength: 1\nstart: 0\n' > "$r")");
    hold(R"("changeid": "a/2", "changeid_base": "uninitialized", "cbt_reset_time_vdisk": 9)");
    EXPECT_EQ(open(), "0 a/3");
    EXPECT_THAT(records(), ElementsAre("a/2 - - a/3 5 9 0"));
    hold(R"("changeid": "old/2")");  // tracking has started anew meanwhile: the copy begins it
    EXPECT_EQ(open(), "0 a/3");
    EXPECT_THAT(records(), ElementsAre("a/3 - - a/3 5 0 0"));
    hold(R"("changeid": "uninitialized", "changeid_base": "uninitialized")");  // the first one after a reset
    EXPECT_EQ(open(), "0 a/3");
    EXPECT_THAT(records(), ElementsAre("a/3 - - a/3 5 0 0")) << "changes of another tracking are none since then";
    answer(object_, "[]");
    EXPECT_EQ(open(), "0 a/3");
    EXPECT_THAT(records(), IsEmpty());

    vm_.use_cbt = false;
    vm_.discovered = 1;
    EXPECT_EQ(open(), "0 ");
}

TEST_F(cbt_base_test, ScriptsFailureFailsTheCopyButForAMissingChangeId) {
    hold("");
    say("exit 5");
    EXPECT_EQ(open(), "0 ");
    say("exit 1");
    EXPECT_EQ(open(), "1 ");
    say(R"(echo garbage > "$r")");
    EXPECT_EQ(open(), "1009 ");
    EXPECT_THAT(posted("event"), IsEmpty());
    say("exit 8");
    EXPECT_EQ(open(), "8 ");
    EXPECT_THAT(posted("event"), ElementsAre(R"({ "event_name": "reset_cbt", "args": { "uuid": "564d0001" } })"));
    answer(object_, "", 500);
    EXPECT_EQ(open(), "11 ");
    EXPECT_THAT(records(), IsEmpty());
}

TEST_F(cbt_records_test, FlatDisksTimeChangesWhenAFullCopyIsNeeded) {
    constexpr std::time_t now = 5'000'000;
    constexpr std::time_t week = 604'800;
    constexpr std::time_t t = 3'000'000;  // of the reset
    const std::string ids = R"("changeid": "a/2", "changeid_base": "a/1", "changeid_incr": "a/2", )";
    const auto record = [&](std::time_t time, int size) {
        return ids + cor_format(R"("cbt_reset_time_vdisk": %jd, "flat_file_size": "%d")",
                                static_cast<std::intmax_t>(time), size);
    };
    const auto kept = [](std::time_t time, int size) {
        return cor_format("a/2 - a/2 a/1 5 %jd %d", static_cast<std::intmax_t>(time), size);
    };
    const auto forgotten = [](std::time_t time) {
        return cor_format("uninitialized - uninitialized uninitialized 5 %jd 1024", static_cast<std::intmax_t>(time));
    };
    const struct {
        const char* why;
        std::string members;  // of the record; "-": none
        std::time_t actual;
        bool pending;
        std::time_t prev;
        std::time_t expected;
        std::string posted;  // empty: nothing
    } cases[] = {
        {"nothing new, though the guest writes", record(t, 1024), now, false, t - 9, t, ""},
        {"first sight", ids.substr(0, ids.size() - 2), now, false, t - 9, t, kept(t, 1024)},
        {"size not known", record(t, 0), now, false, t - 9, t, kept(t, 1024)},
        {"grown", record(t, 512), now, false, t - 9, now, kept(now, 1024)},
        {"smaller than it was", record(t, 2048), now, false, t - 9, t, ""},
        {"reset of a disk in use", record(t - 50, 1024), t - 9, true, t - 9, now, forgotten(now)},
        {"reset of a disk not written since the reset before", record(t - 50, 1024), t - 10, true, t - 9, t - 10,
         forgotten(t - 10)},
        {"reset of a disk not written since its last copy", record(t - 5, 1024), t - 10, true, t - 9, t - 5,
         forgotten(t - 5)},
        {"first reset, written in the week before", record(t - 5, 1024), t - week, true, 0, now, forgotten(now)},
        {"first reset, untouched for longer", record(t - 5, 1024), t - week - 1, true, 0, t - 5, forgotten(t - 5)},
        {"passed over by a reset, written since", record(t - 50, 1024), t + 1, false, t - 9, now, kept(now, 1024)},
        {"passed over, not written since", record(t - 50, 1024), t, false, t - 9, t - 50, ""},
        {"no record, written lately", "-", t, false, t - 9, now,
         cor_format("uninitialized - - - 5 %jd 1024", static_cast<std::intmax_t>(now))},
        {"no record, old", "-", t - 10, false, t - 9, t - 10,
         cor_format("uninitialized - - - 5 %jd 1024", static_cast<std::intmax_t>(t - 10))},
    };
    const manual_clock_t clock(now, true);
    for (const auto& c : cases) {
        if (c.members == "-")
            answer(object_, "[]");
        else
            hold(c.members);
        std::time_t mtime = 0;
        EXPECT_EQ(get_flat_file_mtime({.actual_mtime = c.actual,
                                       .st_size = 1024,
                                       .cbt_reset_pending = c.pending,
                                       .cbt_reset_time = t,
                                       .cbt_reset_time_prev = static_cast<std::uint32_t>(c.prev),
                                       .vm_uuid = uuid_,
                                       .shadow_path = shadow_ + "/esx1/vm/disk-flat.vmdk"},
                                      &mtime),
                  nullptr)
            << c.why;
        EXPECT_EQ(mtime, c.expected) << c.why;
        EXPECT_EQ(records(), c.posted.empty() ? std::vector<std::string>() : std::vector{c.posted}) << c.why;
    }
}

TEST_F(cbt_records_test, FlatDisksTimeWithoutARecordToTellItIsItsOwn) {
    flat_mtime_input_t input{.actual_mtime = 77,
                             .st_size = 1024,
                             .cbt_reset_pending = true,
                             .cbt_reset_time = 50,
                             .cbt_reset_time_prev = 40,
                             .vm_uuid = uuid_,
                             .shadow_path = "/esx1/vm/"};
    std::time_t mtime = 0;
    EXPECT_STREQ(get_flat_file_mtime(input, &mtime)->string, "Invalid path /esx1/vm/");
    EXPECT_EQ(mtime, 77);
    input.shadow_path += "disk-flat.vmdk";
    answer(object_, "", 500);
    EXPECT_EQ(get_flat_file_mtime(input, &mtime)->number, EAGAIN);
    EXPECT_EQ(mtime, 77);

    const manual_clock_t clock(1000, true);
    hold(R"("changeid_base": "a/1")");
    answer("POST vdisk", "", 500);
    EXPECT_EQ(get_flat_file_mtime(input, &mtime)->number, EAGAIN);
    EXPECT_EQ(mtime, 1000) << "the controller may have taken it all the same";
}

}  // namespace
}  // namespace mirador
