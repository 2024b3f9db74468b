// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/cordev_io.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <limits>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "appliance/lib/cordev_ahead.h"
#include "appliance/lib/registry.h"
#include "lib/clock.h"
#include "lib/tool_paths.h"
#include "tests/lib/error_number.h"
#include "tests/lib/temp_dir.h"
#include "tests/support/inuse_model.h"

namespace {

// What the storage layer answers to "dev_ref_count", which no ordinary file system knows; -1: nothing.
int ref_count = 0;
int looks_until_dropped = 0;  // after so many looks the count is 0

// The ranges (offset, size) that the kernel was told to fetch, while somebody wants to know.
std::vector<std::pair<off_t, off_t>>* fetched = nullptr;

}  // namespace

extern "C" ssize_t getxattr(const char* path, const char* name, void* value, std::size_t size) noexcept {
    if (std::strcmp(name, "dev_ref_count") != 0)
        return syscall(SYS_getxattr, path, name, value, size);
    if (ref_count < 0) {
        errno = EOPNOTSUPP;
        return -1;
    }
    const std::string text = std::to_string(looks_until_dropped-- > 0 ? ref_count : 0);
    std::memcpy(value, text.data(), text.size());
    return static_cast<ssize_t>(text.size());
}

extern "C" int posix_fadvise(int, off_t offset, off_t size, int advice) noexcept {
    if (fetched != nullptr && advice == POSIX_FADV_WILLNEED)
        fetched->emplace_back(offset, size);
    return 0;
}

namespace mirador {
namespace {

using testing::EndsWith;
using testing::HasSubstr;

constexpr std::size_t sector = inuse_model_t::sector;

class cordev_io : public testing::Test {
  protected:
    cordev_io() { tool_paths().inuse_bitmap_dir = dir_ / "inuse"; }
    ~cordev_io() override {
        tool_paths() = tool_paths_t();
        _unallocated_block_fill_pattern = 0;
        get_reg_settings()->smartread_lvm_enabled = false;
        ref_count = 0;
    }

    // A device of random content whose sectors are in use as `used` says.
    template <typename F>
    void make(std::size_t sectors, F used) {
        model_.device.resize(sectors * sector);
        for (char& byte : model_.device)
            byte = static_cast<char>(1 + random_() % 255);  // nothing that passes for the fill pattern
        model_.bitmap.assign((sectors + 7) / 8, '\0');
        for (std::size_t i = 0; i < sectors; i++)
            model_.set(i, used(i));
        publish();
    }

    void publish() {
        write_file(device_, model_.device);
        std::filesystem::create_directories(dir_ / "inuse");
        write_file(bitmap_, model_.bitmap);
    }

    cor_dev_ptr open() { return cor_dev_open(device_, dir_ / "extent"); }

    // Reads through the device and compares bytes and counts; nothing beside the range may be touched.
    void expect_read(cor_dev_desc_t& pdev, std::size_t offset, std::size_t size) {
        constexpr std::size_t margin = 600;
        std::string buf(size + margin, '\x7f');
        std::size_t read = 1;
        std::size_t skipped = 1;
        ASSERT_EQ(optimize_byte_read(pdev, buf.data(), size, static_cast<off_t>(offset), &read, &skipped), nullptr);
        const std::string expected = model_.read(offset, size);
        ASSERT_EQ(cor_dev_room(pdev, size, static_cast<off_t>(offset)), expected.size());
        ASSERT_EQ(buf, expected + std::string(buf.size() - expected.size(), '\x7f')) << offset << " " << size;
        ASSERT_EQ(read, model_.touched(offset, size, true)) << offset << " " << size;
        ASSERT_EQ(skipped, model_.touched(offset, size, false)) << offset << " " << size;
    }

    temp_dir_t dir_;
    const std::string device_ = dir_ / "mapping";
    const std::string bitmap_ = dir_ / "inuse/mapping";
    inuse_model_t model_;
    std::mt19937 random_{4711};
};

TEST_F(cordev_io, EveryAlignmentGivesTheModelsBytesAndCounts) {
    constexpr std::size_t sectors = 21;  // the last byte of the bitmap is used in part
    make(sectors, [](std::size_t i) { return i % 5 < 2 || i >= 16; });
    model_.bitmap.back() = static_cast<char>(model_.bitmap.back() | '\xe0');  // bits beyond the device mean nothing
    publish();
    _unallocated_block_fill_pattern = 0xe5;
    model_.fill = '\xe5';
    const cor_dev_ptr pdev = open();
    ASSERT_NE(pdev, nullptr);
    std::vector<std::size_t> sizes;
    for (const unsigned count : {0U, 1U, 2U, 9U, 21U})
        for (const unsigned rest : {1U, 99U, 100U, 412U, 511U, 512U})
            sizes.push_back(count * sector + rest);
    for (std::size_t first = 0; first <= sectors + 1; first++)
        for (const unsigned in : {0U, 1U, 100U, 511U})
            for (const std::size_t size : sizes)
                ASSERT_NO_FATAL_FAILURE(expect_read(*pdev, first * sector + in, size));
}

TEST_F(cordev_io, OffsetsThatNoDeviceReaches) {
    make(8, [](std::size_t) { return true; });
    const cor_dev_ptr pdev = open();
    std::size_t read = 1;
    std::size_t skipped = 1;
    char buf[2] = {'x', 'x'};
    EXPECT_EQ(optimize_byte_read(*pdev, buf, 2, std::numeric_limits<off_t>::max(), &read, &skipped), nullptr);
    EXPECT_EQ(read + skipped, 0U);
    EXPECT_EQ(optimize_byte_read(*pdev, buf, 2, -1, &read, &skipped)->number, EINVAL);
    EXPECT_EQ(buf[0], 'x');
}

// Going through the disk has every sector in use fetched once, but those before the second window, and no free one.
TEST_F(cordev_io, WhatIsInUseIsFetchedAheadAndNothingElse) {
    constexpr std::size_t window = cor_dev_window / sector;
    constexpr std::size_t sectors = 4 * window + 300;
    bool used = false;
    make(sectors, [&](std::size_t) { return used = random_() % 200 == 0 ? !used : used; });
    const cor_dev_ptr pdev = open();
    for (const std::size_t request : {64U * 1024U, 128U * 1024U, 1U << 20, 4096U}) {
        std::vector<std::pair<off_t, off_t>> ranges;
        fetched = &ranges;
        for (std::size_t at = 0; at < sectors * sector; at += request)
            ASSERT_NO_FATAL_FAILURE(expect_read(*pdev, at, request));
        fetched = nullptr;
        std::vector<int> times(sectors);
        for (const auto& [offset, size] : ranges)
            for (off_t at = offset; at < offset + size; at += static_cast<off_t>(sector))
                times.at(static_cast<std::size_t>(at) / sector)++;
        for (std::size_t i = 0; i < sectors; i++)
            ASSERT_EQ(times[i], request > 4096 && i >= window && model_.in_use(i) ? 1 : 0) << request << " " << i;
    }
}

TEST_F(cordev_io, FreeSectorsCostNoReadOfTheDeviceAndFailuresComeFromTheOthers) {
    make(32, [](std::size_t i) { return i >= 16; });
    const cor_dev_ptr pdev = open();
    ASSERT_EQ(truncate(device_.c_str(), 20 * sector), 0);
    expect_read(*pdev, 0, 20 * sector);
    std::string buf(20 * sector, 'x');
    std::size_t read = 1;
    std::size_t skipped = 1;
    const errdesc_t* e = optimize_byte_read(*pdev, buf.data(), buf.size(), 8 * sector, &read, &skipped);
    ASSERT_EQ(number_of(e), EIO) << "a device that ends too early";
    EXPECT_THAT(e->string, HasSubstr(dir_ / "extent"));
    EXPECT_EQ(read + skipped, 0U);

    pdev->fd.reset(::open(dir_.path().c_str(), O_RDONLY | O_CLOEXEC));  // every read of it fails
    EXPECT_EQ(optimize_byte_read(*pdev, buf.data(), sector, 16 * sector, &read, &skipped)->number, EISDIR);
}

TEST_F(cordev_io, BitmapThatCannotBeReadFailsTheRead) {
    make(64, [](std::size_t) { return true; });
    const cor_dev_ptr pdev = open();
    ASSERT_EQ(truncate(bitmap_.c_str(), 5), 0);
    expect_read(*pdev, 0, 40 * sector);
    std::string buf(64 * sector, 'x');
    std::size_t read = 1;
    std::size_t skipped = 1;
    const errdesc_t* e = optimize_byte_read(*pdev, buf.data(), buf.size(), 8 * sector, &read, &skipped);
    ASSERT_EQ(number_of(e), EIO);
    EXPECT_STREQ(e->string,
                 "optimize_byte_read : pread size 7 bytes, start 1, inuse_bitmap of /mapping returned 4 nbytes "
                 "(errno = 0)\n");
    EXPECT_EQ(buf, std::string(64 * sector, 'x'));
    pdev->bmap_fd.reset(::open(dir_.path().c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_THAT(optimize_byte_read(*pdev, buf.data(), 1, 0, &read, &skipped)->string,
                EndsWith("returned -1 nbytes (errno = 21)\n"));
}

TEST_F(cordev_io, OnlyAWholeDeviceWithABitForEverySectorIsOpened) {
    struct {
        std::size_t device_size;
        int bitmap_size;  // -1: none, -2: a directory
        bool opens;
    } const cases[] = {
        {17 * sector, 3, true},   {17 * sector, 4, true},  {16 * sector, 2, true},
        {17 * sector, 2, false},  {17 * sector, 0, false}, {17 * sector, -1, false},
        {17 * sector, -2, false}, {0, 1, false},           {17 * sector + 1, 9, false},
    };
    std::filesystem::create_directories(dir_ / "inuse");
    for (const auto& c : cases) {
        write_file(device_, std::string(c.device_size, 'd'));
        std::filesystem::remove(bitmap_);
        if (c.bitmap_size >= 0)
            write_file(bitmap_, std::string(static_cast<std::size_t>(c.bitmap_size), '\0'));
        else if (c.bitmap_size == -2)
            std::filesystem::create_directory(bitmap_);
        testing::internal::CaptureStdout();
        const bool opened = open() != nullptr;
        const std::string log = testing::internal::GetCapturedStdout();
        EXPECT_EQ(opened, c.opens) << c.device_size << " " << c.bitmap_size;
        if (c.bitmap_size == -1) {
            EXPECT_THAT(log, HasSubstr("cor_dev_open: failed to open " + bitmap_ + ", errno 2\n"));
        }
    }
    std::filesystem::remove(device_);
    EXPECT_EQ(open(), nullptr);
}

TEST_F(cordev_io, VolumeGroupsAreReadThroughTheDevicesTwin) {
    make(8, [](std::size_t) { return true; });
    get_reg_settings()->smartread_lvm_enabled = true;
    EXPECT_EQ(open(), nullptr) << "there is none";
    std::filesystem::rename(device_, device_ + ".dup");
    const cor_dev_ptr pdev = open();
    ASSERT_NE(pdev, nullptr);
    expect_read(*pdev, 0, 8 * sector);
}

TEST_F(cordev_io, LastOwnerWaitsUntilTheStorageLayerDropsTheDevice) {
    struct {
        int count;
        int looks;
        std::time_t seconds;
        const char* line;
    } const cases[] = {
        {0, 0, 0, nullptr},
        {2, 3, 3, nullptr},
        {2, 10, 10, nullptr},
        {2, 99, 10, "is not zero (ref_count/waiting 2/10)\n"},
        {-1, 0, 0, ", errno 95 (waiting 0)\n"},
    };
    make(8, [](std::size_t) { return true; });
    for (const auto& c : cases) {
        ref_count = c.count;
        looks_until_dropped = c.looks;
        cor_dev_ptr first = open();
        cor_dev_ptr second = first;
        manual_clock_t clock(1000);
        testing::internal::CaptureStdout();
        cor_dev_close(&first);
        const std::string early = testing::internal::GetCapturedStdout();
        EXPECT_EQ(early, "") << "another owner reads on";
        EXPECT_EQ(clock.slept(), 0);
        expect_read(*second, 0, sector);
        testing::internal::CaptureStdout();
        cor_dev_close(&second);
        const std::string log = testing::internal::GetCapturedStdout();
        EXPECT_EQ(clock.slept(), c.seconds);
        if (c.line == nullptr) {
            EXPECT_THAT(log, testing::Not(HasSubstr("WARNING")));
        } else {
            EXPECT_THAT(log, testing::AllOf(HasSubstr("WARNING"), HasSubstr(bitmap_), EndsWith(c.line)));
        }
    }
}

TEST_F(cordev_io, ManyThreadsReadThroughOneReader) {
    constexpr int threads = 4;
    constexpr int reads = 400;
    make(300, [](std::size_t i) { return i % 7 < 3; });
    const cor_dev_ptr pdev = open();
    std::vector<std::thread> running;
    for (unsigned t = 0; t < threads; t++)
        running.emplace_back([&, t] {
            std::mt19937 random(t);
            for (int i = 0; i < reads; i++)
                expect_read(*pdev, random() % (300 * sector), 1 + random() % (40 * sector));
        });
    for (std::thread& thread : running)
        thread.join();
    const cor_dev_stats_t& stats = pdev->stats;
    EXPECT_EQ(stats.sectors_read + stats.sectors_skipped, stats.inuse_tests);
    EXPECT_EQ(stats.io_bytes, stats.inuse_tests * sector);
}

}  // namespace
}  // namespace mirador
