// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/devmap.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <set>
#include <thread>
#include <vector>

#include "lib/clock.h"
#include "lib/tool_paths.h"
#include "tests/lib/in_child.h"
#include "tests/lib/temp_dir.h"

namespace mirador {
namespace {

class devmap : public testing::Test {
  protected:
    void SetUp() override {
        tool_paths().dmsetup =
            write_script(dir_ / "dmsetup", "echo \"$@\" >> '" + log_ + "'\n[ \"$2\" != bad ] || exit 3\n");
    }
    void TearDown() override { tool_paths() = tool_paths_t(); }

    static constexpr unsigned clock_factor = 50;

    fast_clock_t clock_{clock_factor};
    temp_dir_t dir_;
    const std::string log_ = dir_ / "calls";
};

TEST_F(devmap, NamesAreValidAndNeverRepeat) {
    constexpr std::size_t threads = 4;
    constexpr std::size_t names = 200;
    std::vector<std::string> got(threads * names);
    {
        std::vector<std::jthread> pool;
        for (std::size_t t = 0; t < threads; ++t)
            pool.emplace_back([&, t] {
                for (std::size_t i = 0; i < names; ++i)
                    dm_mk_unique_name("vdsk", &got[t * names + i]);
            });
    }
    EXPECT_EQ(std::set<std::string>(got.begin(), got.end()).size(), got.size());
    for (const std::string& name : got) {
        EXPECT_LT(name.size(), 128U);
        EXPECT_TRUE(name.starts_with("vdsk-"));
        EXPECT_TRUE(std::ranges::all_of(name, [](unsigned char c) { return std::isalnum(c) || c == '-'; })) << name;
    }

    // A child that counts from the same number on, and that could have the parent's process id.
    const std::string file = dir_ / "name";
    in_child([&] {
        std::string name;
        dm_mk_unique_name("vdsk", &name);
        write_file(file, name);
        return 0;
    });
    std::string mine;
    dm_mk_unique_name("vdsk", &mine);
    EXPECT_NE(mine.substr(mine.rfind('-')), read_file(file).substr(read_file(file).rfind('-')));
}

}  // namespace
}  // namespace mirador
