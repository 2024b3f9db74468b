// SPDX-License-Identifier: Apache-2.0
#include "lib/hash_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

namespace mirador {
namespace {

using testing::Pointee;
using testing::UnorderedElementsAre;

TEST(hash_table, LastReleaseHandsTheObjectBack) {
    hash_table_t<std::unique_ptr<int>> table;
    table_new_handle(table, "disk", std::make_unique<int>(42));
    EXPECT_THAT(table_get_handle(table, "disk"), Pointee(Pointee(42)));
    EXPECT_NE(table_get_handle(table, "disk"), nullptr);
    EXPECT_EQ(table_get_refcount(table, "disk"), 3U);
    EXPECT_FALSE(table_release_handle(table, "disk").has_value());
    EXPECT_FALSE(table_release_handle(table, "disk").has_value());
    const auto last = table_release_handle(table, "disk");
    ASSERT_TRUE(last.has_value());
    EXPECT_EQ(**last, 42);
    EXPECT_EQ(table_get_handle(table, "disk"), nullptr);
    EXPECT_EQ(table_get_refcount(table, "disk"), 0U);
    EXPECT_FALSE(table_release_handle(table, "disk").has_value());
}

TEST(hash_table, SecondInsertDisplacesTheFirstWithItsReferences) {
    hash_table_t<std::shared_ptr<int>> table;
    const auto first = std::make_shared<int>(1);
    table_new_handle(table, "a", first);
    (void)table_get_handle(table, "a");
    table_new_handle(table, "a", std::make_shared<int>(2));
    table_new_handle(table, "b", first);
    EXPECT_EQ(table_get_refcount(table, "a"), 1U);
    EXPECT_THAT(table_get_handle(table, "a"), Pointee(Pointee(2)));
    EXPECT_THAT(table_get_keys(table), UnorderedElementsAre("a", "b"));
}

TEST(hash_table, UseAfterFreeingAndNullHandlesAreFatal) {
    hash_table_t<std::shared_ptr<int>> table;
    EXPECT_DEATH(table_new_handle(table, "null", std::shared_ptr<int>()), "handle != nullptr");
    table_free(&table);
    EXPECT_DEATH((void)table_get_handle(table, "a"), "magic == 0xFFDD0011");
    table_init(&table);
    EXPECT_EQ(table_get_handle(table, "a"), nullptr);
}

}  // namespace
}  // namespace mirador
