// SPDX-License-Identifier: Apache-2.0
// Tables over plain files in the place of loop devices are read the way the kernel would. Loop devices are real where a
// device is built, which only root can do; dmsetup is a script.
#include "appliance/lib/corcbt_table.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <random>

#include "appliance/lib/registry.h"
#include "lib/clock.h"
#include "lib/tool_paths.h"
#include "tests/lib/error_number.h"
#include "tests/lib/temp_dir.h"
#include "tests/support/changed_images.h"
#include "tests/support/dm_table.h"
#include "tests/support/loop_guard.h"

namespace mirador {
namespace {

using testing::IsEmpty;

class corcbt_table : public testing::Test {
  protected:
    void SetUp() override {
        std::filesystem::create_directory(work_);
        tool_paths().tmp_dir = work_;
        tool_paths().dmsetup =
            write_script(dir_ / "dmsetup", "echo \"$@\" >>'" + log_ + "'\nexit $(cat '" + status_ + "')\n");
        write_file(status_, "0");
    }
    void TearDown() override {
        tool_paths() = tool_paths_t();
        get_reg_settings()->cbt_debug_enabled = false;
    }
    std::vector<std::string> work_files() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(work_))
            names.push_back(entry.path().filename());
        return names;
    }
    // The bytes that a table maps; the fault when it is none.
    std::string mapped(const std::string& text) const {
        std::vector<dm_line_t> lines;
        std::string fault;
        if (!parse_dm_table(text, &lines, &fault) || !read_dm_table(lines, dir_ / "mapped", &fault))
            return "fault: " + fault + " in\n" + text;
        return read_file(dir_ / "mapped");
    }

    static constexpr unsigned clock_factor = 50;

    fast_clock_t clock_{clock_factor};
    temp_dir_t dir_;
    const std::string work_ = dir_ / "work";
    const std::string flat_ = dir_ / "disk-flat.vmdk";
    const std::string corcbt_ = dir_ / "disk-corcbt.vmdk";
    const std::string log_ = dir_ / "calls";
    const std::string status_ = dir_ / "status";
    std::string name_;
    std::unique_ptr<table_file_t> table_;
};

TEST_F(corcbt_table, MapsTheImageOfNowAndThePartsThatChanged) {
    std::mt19937 random(1);
    for (int round = 0; round < 200; ++round) {
        const changed_images_t images = random_changed_images(64, random);
        for (const std::string& path : {flat_, corcbt_, dir_ / "mapped"})
            unlink(path.c_str());  // overwriting one would wait for the disk
        write_file(flat_, images.before);
        write_file(corcbt_, images.corcbt);
        ASSERT_EQ(create_devmap_table_merge(flat_, flat_, corcbt_, images.list, images.header, &name_, &table_),
                  nullptr);
        ASSERT_EQ(mapped(read_file(table_->path())), images.now) << read_file(table_->path());
        struct stat st {};
        ASSERT_EQ(stat(table_->path().c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0600U);

        unlink(flat_.c_str());
        unlink((dir_ / "mapped").c_str());
        write_file(flat_, images.now);
        ASSERT_EQ(create_devmap_table_import(flat_, images.list, images.header, &name_, &table_), nullptr);
        const std::string data = images.corcbt.substr(static_cast<std::size_t>(images.header.block_data_offset));
        ASSERT_EQ(mapped(read_file(table_->path())), data) << read_file(table_->path());
    }
}

TEST_F(corcbt_table, WhatCannotBeMappedExactlyIsRefused) {
    const std::string small = write_file(dir_ / "small", std::string(4096, 'x'));
    const std::string odd = write_file(dir_ / "odd", std::string(4000, 'x'));
    struct {
        std::string flat;
        cbt_extent_list_t list;
        std::int64_t data;
        std::int64_t disk;
        int number;
    } const cases[] = {
        {small, {{0, 1024, 512}, {0, 0, 512}}, 512, 4096, EINVAL},
        {small, {{0, 4096, 512}}, 512, 4096, EINVAL},
        {small, {{0, 0, 512}}, 500, 4096, EINVAL},
        {small, {{0, 0, 512}}, -512, 4096, EINVAL},
        {small, {}, 512, 4000, EINVAL},
        {small, {}, 512, 2048, EINVAL},
        {small, {}, 512, -512, EINVAL},
        {odd, {}, 512, 4096, EINVAL},
        {dir_ / "absent", {}, 512, 4096, ENOENT},
    };
    for (const auto& c : cases) {
        cbt_file_header_t header{};
        header.block_data_offset = c.data;
        header.flat_file_size = c.disk;
        EXPECT_EQ(number_of(create_devmap_table_merge(c.flat, "flat", "corcbt", c.list, header, &name_, &table_)),
                  c.number)
            << c.flat << c.disk;
        EXPECT_THAT(work_files(), IsEmpty());
    }
    tool_paths().tmp_dir = dir_ / "absent";
    cbt_file_header_t header{};
    EXPECT_EQ(create_devmap_table_merge(write_file(flat_, ""), "flat", "corcbt", {}, header, &name_, &table_)->number,
              ENOENT);
}

class corcbt_device : public corcbt_table {
  protected:
    void SetUp() override {
        if (!loop_guard_t::available())
            GTEST_SKIP() << "needs root and loop devices";
        corcbt_table::SetUp();
        std::mt19937 random(7);
        do
            images_ = random_changed_images(64, random);
        while (images_.list.empty() || images_.before.size() == images_.now.size());
        write_file(flat_, images_.before);
        write_file(corcbt_, images_.corcbt);
    }
    void expect_nothing_left(const merged_corcbt_t& device) {
        EXPECT_EQ(device.name + device.dm_device + device.flat_loopdev + device.corcbt_loopdev, "");
        EXPECT_THAT(loop_guard_t::left_below(dir_.path()), IsEmpty());
        EXPECT_THAT(work_files(), IsEmpty());
    }

    loop_guard_t guard_;
    changed_images_t images_;
};

TEST_F(corcbt_device, FailuresLeaveNothing) {
    const std::string cut = write_file(dir_ / "cut", images_.corcbt.substr(0, images_.corcbt.size() - 1));
    const struct {
        const char* what;
        std::string flat;
        std::string corcbt;
        const char* status;
        int number;
    } cases[] = {
        {"no flat image", dir_ / "absent", corcbt_, "0", ENOENT},
        {"no changed-block file", flat_, dir_ / "absent", "0", ENOENT},
        {"a file that is cut", flat_, cut, "0", EINVAL},
        {"an image that is no older one", write_file(dir_ / "large", std::string(65536, 'x')), corcbt_, "0", EINVAL},
        {"dmsetup fails", flat_, corcbt_, "3", 3},
    };
    for (const auto& c : cases) {
        write_file(status_, c.status);
        for (const auto setup : {get_merged_corcbt, setup_import_corcbt}) {
            merged_corcbt_t device;
            EXPECT_EQ(number_of(setup(c.flat, c.corcbt, &device)), c.number) << c.what;
            expect_nothing_left(device);
        }
    }
    EXPECT_THAT(read_file(log_), testing::Not(testing::HasSubstr("remove")));
}

}  // namespace
}  // namespace mirador
