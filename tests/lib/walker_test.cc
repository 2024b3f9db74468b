// SPDX-License-Identifier: Apache-2.0
#include "lib/walker.h"

#include <gmock/gmock.h>

#include <csignal>
#include <filesystem>
#include <map>

#include "tests/lib/temp_dir.h"

namespace mirador {
namespace {

// Starts a walk of every base and waits for all.
void walk(const std::vector<std::string>& bases, const walker_filter_t& filter, const walker_callback_t& callback) {
    std::vector<std::thread> threads;
    for (const std::string& base : bases) {
        threads.emplace_back();
        ASSERT_EQ(walker_start({base, filter, callback}, &threads.back()), nullptr);
    }
    walker_wait(&threads);
    EXPECT_THAT(threads, testing::IsEmpty());
}

// Whether the program's own signals stay away from the calling thread.
bool signals_are_blocked() {
    sigset_t blocked;
    return pthread_sigmask(SIG_BLOCK, nullptr, &blocked) == 0 && sigismember(&blocked, SIGTERM) == 1 &&
           sigismember(&blocked, SIGHUP) == 1;
}

bool is_vmx(const walker_cb_desc_t& entry) {
    EXPECT_TRUE(signals_are_blocked());
    return entry.path.ends_with(".vmx");
}

class walker_test : public testing::Test {
  protected:
    ~walker_test() override { walker_end(); }

    // A tree of `count` directories, each with a file "x.vmx" and one more.
    std::string tree(const std::string& name, int count) {
        for (int i = 0; i < count; ++i) {
            const std::string dir = dir_ / name + "/" + std::to_string(i);
            std::filesystem::create_directories(dir);
            write_file(dir + "/x.vmx", std::to_string(i));
            write_file(dir + "/other", "");
        }
        return dir_ / name;
    }

    temp_dir_t dir_;
};

TEST_F(walker_test, EveryAcceptedPathIsHandedOnOnce) {
    const std::vector<std::string> bases = {tree("a", 40), tree("b", 70)};
    std::map<std::string, int> seen;  // without a lock: callbacks run one at a time
    std::map<std::string, std::uint64_t> hits;
    const auto walking = std::this_thread::get_id();
    for (int round = 1; round <= 3; ++round) {
        hits.clear();
        walk(bases, is_vmx, [&](const walker_cb_desc_t& entry) {
            EXPECT_TRUE(entry.path.starts_with(entry.base + "/"));
            EXPECT_TRUE(S_ISREG(entry.sb.st_mode));
            EXPECT_EQ(entry.hits, hits[entry.base] + 1);
            EXPECT_NE(std::this_thread::get_id(), walking);
            EXPECT_TRUE(signals_are_blocked());
            hits[entry.base] = entry.hits;
            ++seen[entry.path];
        });
        EXPECT_EQ(seen.size(), 110U);
        for (const auto& [path, times] : seen)
            EXPECT_EQ(times, round) << path;
    }
}

}  // namespace
}  // namespace mirador
