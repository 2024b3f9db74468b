// SPDX-License-Identifier: Apache-2.0
#include "lib/walker.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <map>

#include "lib/tool_paths.h"
#include "tests/lib/temp_dir.h"

namespace mirador {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Starts a walk of every base and waits for all.
void walk(const std::vector<std::string>& bases, const walker_filter_t& filter, const walker_callback_t& callback) {
    std::vector<std::thread> threads;
    for (const std::string& base : bases) {
        threads.emplace_back();
        ASSERT_EQ(walker_start({base, filter, callback}, &threads.back()), nullptr);
    }
    walker_wait(&threads);
    EXPECT_THAT(threads, IsEmpty());
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

TEST_F(walker_test, WithoutAFilterEveryEntryAndLinksAreNotFollowed) {
    const std::string base = tree("a", 2);
    const std::string other = tree("b", 1);
    std::filesystem::create_symlink(other, base + "/link");
    std::vector<std::string> seen;
    walk({base}, nullptr, [&](const walker_cb_desc_t& entry) {
        seen.push_back(entry.path.substr(base.size()) + (S_ISLNK(entry.sb.st_mode) ? " link" : ""));
    });
    std::sort(seen.begin(), seen.end());
    EXPECT_THAT(seen, ElementsAre("", "/0", "/0/other", "/0/x.vmx", "/1", "/1/other", "/1/x.vmx", "/link link"));
    seen.clear();
    walk({dir_ / "absent"}, nullptr, [&](const walker_cb_desc_t& entry) { seen.push_back(entry.path); });
    EXPECT_THAT(seen, IsEmpty());
}

TEST_F(walker_test, AnEndStopsWalksAndALaterStartBeginsAnew) {
    const std::string base = tree("a", 50);
    std::atomic<bool> first = false;
    std::atomic<bool> go_on = false;
    std::atomic<int> calls = 0;
    std::vector<std::thread> threads(1);
    ASSERT_EQ(walker_start({base, is_vmx,
                            [&](const walker_cb_desc_t&) {
                                ++calls;
                                first = true;
                                while (!go_on)
                                    std::this_thread::yield();
                            }},
                           &threads[0]),
              nullptr);
    while (!first)
        std::this_thread::yield();
    std::thread ending(walker_end);
    std::vector<std::thread> more(1);  // while the end waits for the callback
    int later = 0;
    ASSERT_EQ(walker_start({dir_.path(), nullptr, [](const walker_cb_desc_t&) {}}, &more[0]), nullptr);
    go_on = true;
    ending.join();
    walker_wait(&threads);
    walker_wait(&more);
    EXPECT_GE(calls, 1);
    walk({base}, is_vmx, [&](const walker_cb_desc_t&) { ++later; });
    EXPECT_EQ(later, 50);
}

TEST_F(walker_test, MountPointsOfRealFileSystems) {
    tool_paths().mount_table = write_file(dir_ / "mtab",
                                          "/dev/sda1 / ext3 rw 0 0\nproc /proc proc rw 0 0\n"
                                          "tmpfs /run tmpfs rw 0 0\nnas:/ds /vmfs/my\\040ds nfs rw 0 0\n"
                                          "x /x tmp rw 0 0\ny /y tmpfs2 rw 0 0\nz /z procfs rw 0 0\n");
    std::vector<std::string> found;
    mount_table_ptr table = walker_start_mount_points();
    ASSERT_NE(table, nullptr);
    while (const auto point = walker_get_mount_points(table.get()))
        found.push_back(*point);
    walker_end_mount_points(std::move(table));
    EXPECT_THAT(found, ElementsAre("/", "/vmfs/my ds", "/y", "/z"));
    tool_paths().mount_table = dir_ / "absent";
    EXPECT_EQ(walker_start_mount_points(), nullptr);
    tool_paths() = {};
}

}  // namespace
}  // namespace mirador
