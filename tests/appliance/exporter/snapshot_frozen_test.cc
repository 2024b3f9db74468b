// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/snapshot_frozen.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "lib/clock.h"
#include "tests/lib/error_number.h"
#include "tests/lib/temp_dir.h"

namespace mirador {
namespace {

namespace fs = std::filesystem;

const std::string name = "V+x: m-1";

struct entry_t {
    int uid = 1;
    std::string disk = "web.vmdk";
    int time = 7;
    std::string display = name;
};

std::string text_of(const std::vector<entry_t>& snapshots) {
    std::string text = "snapshot.numSnapshots = \"" + std::to_string(snapshots.size()) + "\"\n";
    int index = 0;
    for (const entry_t& one : snapshots) {
        const std::string key = "snapshot" + std::to_string(index++) + ".";
        for (const auto& [field, value] :
             std::vector<std::pair<std::string, std::string>>{{"uid", std::to_string(one.uid)},
                                                              {"displayName", one.display},
                                                              {"createTimeHigh", "1"},
                                                              {"createTimeLow", std::to_string(one.time)},
                                                              {"numDisks", "1"},
                                                              {"disk0.fileName", one.disk},
                                                              {"disk0.node", "scsi0:0"}})
            text.append(key).append(field).append(" = \"").append(value).append("\"\n");
    }
    return text;
}

class snapshot_frozen_test : public testing::Test {
  protected:
    snapshot_frozen_test() {
        for (const char* directory : {"web", "web/sub", "ds2", "ds2/web"})
            fs::create_directory(dir_ / directory);
        for (const char* disk : {"web/web.vmdk", "web/web-000001.vmdk", "ds2/web.vmdk", "ds2/web/web.vmdk"})
            write_file(dir_ / disk, "disk");
        fs::create_directory_symlink("ds2", dir_ / "5f3a");
    }

    void store(const std::vector<entry_t>& snapshots) { write_file(database_, text_of(snapshots)); }
    // The record of a snapshot that has just been made.
    snapshot_state_t& made(const std::vector<entry_t>& snapshots) {
        store(snapshots);
        state_.emplace();
        state_->snapshotname = name;
        state_->database = database_;
        state_->number = snapshot_number_in(database_, name);
        return *state_;
    }

    temp_dir_t dir_;
    const std::string database_ = dir_ / "web/web.vmsd";
    std::optional<snapshot_state_t> state_;
    std::optional<manual_clock_t> clock_{std::in_place, 1'000'000};
};

TEST_F(snapshot_frozen_test, KnowsDisksByWhereTheirNamesLead) {
    const struct {
        std::string listed, opened;
        int error;
    } cases[] = {
        {"web.vmdk", "web/web.vmdk", 0},
        {"./web.vmdk", "web/web.vmdk", 0},
        {"../ds2/web/web.vmdk", "ds2/web/web.vmdk", 0},
        {dir_ / "5f3a/web.vmdk", "ds2/web.vmdk", 0},
        {dir_ / "elsewhere/web.vmdk", "ds2/web.vmdk", 0},  // a host's name for a datastore
        {"web.vmdk", "web/web-000001.vmdk", EAGAIN},
        {"web.vmdk", "ds2/web/web.vmdk", EAGAIN},
        {dir_ / "5f3a/web.vmdk", "web/web.vmdk", EAGAIN},
        {dir_ / "elsewhere/web-000002.vmdk", "ds2/web.vmdk", EAGAIN},
        {"w|E9b.vmdk", "web/web-000001.vmdk", 0},  // its encoding is not known
    };
    for (const auto& one : cases) {
        snapshot_state_t& state = made({{.disk = one.listed}});
        ASSERT_TRUE(state.number) << one.listed;
        EXPECT_EQ(number_of(snapshot_check_frozen(&state, dir_ / one.opened)), one.error)
            << one.listed << ' ' << one.opened;
    }
    EXPECT_EQ(clock_->slept(), 0);
}

// Whoever bears the number or the name, only that very snapshot froze what is read.
TEST_F(snapshot_frozen_test, IsLostWithItsOwnRecordAlone) {
    const entry_t user{.uid = 2, .display = "user"};
    const struct {
        std::vector<entry_t> before, after;
        int error;
    } cases[] = {
        {{{}}, {user, {}}, 0},
        {{{}}, {{.display = "renamed"}}, 0},
        {{{}}, {user}, ESTALE},
        {{{}}, {{.time = 8}}, ESTALE},                // counted from 1 again
        {{{}, {.uid = 2, .time = 8}}, {{}}, ESTALE},  // the newest of the name is the one that is read
        {{{}, {.uid = 2, .time = 8}}, {{.uid = 2, .time = 8}}, 0},
    };
    for (const auto& one : cases) {
        const std::time_t slept = clock_->slept();
        snapshot_state_t& state = made(one.before);
        EXPECT_EQ(snapshot_check_not_lost(&state), nullptr);
        store(one.after);
        EXPECT_EQ(snapshot_check_not_lost(&state), nullptr);  // looked at just now
        clock_->advance(5);
        EXPECT_EQ(number_of(snapshot_check_not_lost(&state)), one.error);
        EXPECT_EQ(number_of(snapshot_check_frozen(&state, dir_ / "web/web.vmdk")), one.error);
        EXPECT_EQ(state.is_lost, one.error != 0);
        EXPECT_EQ(clock_->slept() - slept > 0, one.error != 0);
    }
}

TEST_F(snapshot_frozen_test, KnowsNothingAgainstADiskWithoutTheDatabase) {
    snapshot_state_t& state = made({{}});
    fs::remove(database_);
    EXPECT_EQ(snapshot_check_not_lost(&state), nullptr);
    EXPECT_EQ(snapshot_check_frozen(&state, dir_ / "web/web-000001.vmdk"), nullptr);
    EXPECT_EQ(clock_->slept(), 0);
}

TEST_F(snapshot_frozen_test, ReadersWaitWhileADatabaseIsWrittenAnew) {
    snapshot_state_t& state = made({{}});
    store({});
    clock_.reset();
    const fast_clock_t fast(10);
    std::atomic<bool> is_back = false;
    const auto read = [&] {
        EXPECT_EQ(snapshot_check_not_lost(&state), nullptr);
        EXPECT_TRUE(is_back);
    };
    const std::jthread one(read);
    while (!state.is_missing)
        std::this_thread::yield();
    const std::jthread other(read);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    is_back = true;
    write_file(dir_ / "new", text_of({{}}));
    fs::rename(dir_ / "new", database_);
}

}  // namespace
}  // namespace mirador
