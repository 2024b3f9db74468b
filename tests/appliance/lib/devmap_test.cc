// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/devmap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <set>
#include <thread>
#include <vector>

#include "tests/lib/in_child.h"
#include "tests/lib/temp_dir.h"

namespace mirador {
namespace {

TEST(devmap, NamesAreValidAndNeverRepeat) {
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
    const temp_dir_t dir;
    const std::string file = dir / "name";
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
