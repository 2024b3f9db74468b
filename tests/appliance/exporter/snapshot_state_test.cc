// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/snapshot_state.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <regex>

#include "tests/lib/error_number.h"
#include "tests/lib/temp_dir.h"

namespace mirador {
namespace {

TEST(snapshot_state, OnlyExactNamesAreOurs) {
    struct {
        const char* name;
        bool vendors;
        bool ours;
    } const cases[] = {
        {"a.b*: m(1)", true, true},           {"a.b*: m(1) nightly", true, true}, {"a.b*: m(1)2", true, false},
        {"a.b*: m(1)\nnightly", true, false}, {"a.b*: m", true, false},           {"a.b*: other", true, false},
        {"aXbb: m(1)", false, false},         {"x\na.b*: m(1)", false, false},    {" a.b*: m(1)", false, false},
        {"a.b*:m(1)", false, false},          {"before upgrade", false, false},   {"", false, false},
    };
    const std::regex ours(snapshot_name_pattern("a.b*", "m(1)"));
    const std::regex vendors(snapshot_name_pattern("a.b*"));
    for (const auto& c : cases) {
        const std::string name = c.name;
        EXPECT_EQ(snapshot_name_is_vendors(name, "a.b*"), c.vendors) << name;
        EXPECT_EQ(snapshot_name_is_ours(name, "a.b*", "m(1)"), c.ours) << name;
        EXPECT_FALSE(snapshot_name_is_vendors(name, "")) << name;
        EXPECT_FALSE(snapshot_name_is_ours(name, "a.b*", "")) << name;
        EXPECT_FALSE(snapshot_name_is_ours(name, "", "m(1)")) << name;
        if (name.find('\n') != std::string::npos)
            continue;
        EXPECT_GE(std::regex_match(name, ours), c.ours) << name;  // the agent is not asked for less
        EXPECT_EQ(std::regex_match(name, vendors), c.vendors) << name;
    }
    EXPECT_FALSE(snapshot_name_is_ours(": ", "", ""));
}

TEST(snapshot_state, LockIsSeenByOthersUntilItIsGivenBack) {
    const temp_dir_t dir;
    EXPECT_FALSE(snapshot_state_is_locked(dir.path()));
    EXPECT_FALSE(std::filesystem::exists(dir / ".corvantis.lck"));  // looking makes nothing
    unique_fd first;
    unique_fd second;
    unique_fd exclusive;
    ASSERT_EQ(snapshot_state_lock(dir / "disk-flat.vmdk", &first, true), nullptr);
    ASSERT_EQ(snapshot_state_lock(dir / "disk-flat.vmdk", &second, true), nullptr);
    const errdesc_t* e = snapshot_state_lock(dir / "disk-flat.vmdk", &exclusive, false);
    ASSERT_EQ(number_of(e), EAGAIN);
    EXPECT_TRUE(std::string(e->string).starts_with(dir / ".corvantis.lck"));
    EXPECT_FALSE(exclusive);
    first.reset();
    EXPECT_TRUE(snapshot_state_is_locked(dir.path()));
    second.reset();
    EXPECT_FALSE(snapshot_state_is_locked(dir.path()));
    EXPECT_EQ(snapshot_state_lock(dir / "disk-flat.vmdk", &exclusive, false), nullptr);
    EXPECT_EQ(number_of(snapshot_state_lock(dir / "none/disk-flat.vmdk", &first, true)), ENOENT);
}

}  // namespace
}  // namespace mirador
