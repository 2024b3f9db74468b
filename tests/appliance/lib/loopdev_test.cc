// SPDX-License-Identifier: Apache-2.0
// Real loop devices, so only for root; every device that a test binds is released by the test, by its number.
#include "appliance/lib/loopdev.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <thread>
#include <vector>

#include "lib/cor_string.h"
#include "lib/file_io.h"
#include "lib/tool_paths.h"
#include "tests/lib/error_number.h"
#include "tests/lib/in_child.h"
#include "tests/lib/temp_dir.h"
#include "tests/support/loop_guard.h"

namespace mirador {
namespace {

using testing::StartsWith;

constexpr std::size_t file_size = 4096;

class loopdev : public testing::Test {
  protected:
    void SetUp() override {
        if (!loop_guard_t::available())
            GTEST_SKIP() << "needs root and loop devices";
        write_file(file_, std::string(file_size, 'x'));
    }
    void TearDown() override {
        for (const std::string& device : bound_)
            EXPECT_EQ(vdsk_release_loop_dev(device), nullptr) << device;
        tool_paths() = tool_paths_t();
    }
    std::string bind(bool readonly) {
        std::string device;
        EXPECT_EQ(vdsk_assign_next_loop_dev(file_, readonly, loopdev_timeout, &device), nullptr);
        bound_.push_back(device);
        return device;
    }

    loop_guard_t guard_;
    temp_dir_t dir_;
    const std::string file_ = dir_ / "extent";
    std::vector<std::string> bound_;
};

TEST_F(loopdev, ReadonlyBindingReadsRefusesWritesAndIsReleased) {
    const std::string device = bind(true);
    EXPECT_EQ(loop_guard_t::backing_file(device), file_);
    EXPECT_EQ(read_file(device), std::string(file_size, 'x'));
    unique_fd writable(open(device.c_str(), O_WRONLY | O_CLOEXEC));
    EXPECT_TRUE(!writable || write(writable.get(), "y", 1) < 0 || fsync(writable.get()) != 0);
    writable.reset();
    EXPECT_EQ(read_file(file_), std::string(file_size, 'x'));

    ASSERT_EQ(vdsk_release_loop_dev(device), nullptr);
    EXPECT_EQ(loop_guard_t::backing_file(device), "");
}

TEST_F(loopdev, MissingNodeIsMade) {
    tool_paths().loop_prefix = dir_ / "node";
    const std::string device = bind(true);
    EXPECT_THAT(device, StartsWith(dir_ / "node"));
    struct stat st {};
    ASSERT_EQ(stat(device.c_str(), &st), 0);
    EXPECT_TRUE(S_ISBLK(st.st_mode));
    EXPECT_EQ(st.st_mode & 0777, 0600U);
    EXPECT_EQ(read_file(device), std::string(file_size, 'x'));
}

TEST_F(loopdev, ReleaseOfADeviceInUseTakesEffectAtItsLastClose) {
    const std::string device = bind(true);
    unique_fd user(open(device.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_TRUE(user);
    EXPECT_EQ(vdsk_release_loop_dev(device), nullptr);
    user.reset();
    EXPECT_EQ(loop_guard_t::backing_file(device), "");
}

TEST_F(loopdev, RacersGetADeviceEach) {
    constexpr std::size_t racers = 8;
    constexpr std::size_t rounds = 4;
    std::vector<std::string> devices(racers * rounds);
    {
        std::vector<std::jthread> threads;
        for (std::size_t i = 0; i < racers; ++i)
            threads.emplace_back([&, i] {
                for (std::size_t k = 0; k < rounds; ++k) {
                    if (vdsk_assign_next_loop_dev(file_, true, loopdev_timeout, &devices[i * rounds + k]) != nullptr)
                        return;
                }
            });
    }
    std::set<std::string> distinct;
    for (const std::string& device : devices) {
        if (device.empty())
            continue;
        bound_.push_back(device);
        distinct.insert(device);
        EXPECT_EQ(loop_guard_t::backing_file(device), file_);
    }
    EXPECT_EQ(distinct.size(), racers * rounds);
}

TEST_F(loopdev, Failures) {
    std::string device = "unchanged";
    errdesc_t* e = vdsk_assign_next_loop_dev(dir_ / "missing", true, 1, &device);
    ASSERT_EQ(number_of(e), ENOENT);
    EXPECT_THAT(e->string, StartsWith(dir_ / "missing"));

    // Descriptors run out: no device may be left behind.
    const int status = in_child([&] {
        const unique_fd fd(open(file_.c_str(), O_RDONLY));
        while (open("/dev/null", O_RDONLY) >= 0)
            continue;
        e = vdsk_assign_next_loop_dev_fd(fd.get(), file_, true, 1, &device);
        return number_of(e);
    });
    EXPECT_EQ(status, EMFILE);
    EXPECT_EQ(device, "unchanged");

    // A node that is no loop device.
    tool_paths().loop_prefix = dir_ / "node";
    for (int i = 0; i < 256; ++i)
        write_file(cor_format("%s%d", (dir_ / "node").c_str(), i), "");
    EXPECT_EQ(number_of(vdsk_assign_next_loop_dev(file_, true, 1, &device)), ENOTTY);
    EXPECT_EQ(device, "unchanged");
}

}  // namespace
}  // namespace mirador
