// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "lib/cor_string.h"
#include "lib/cor_uuid.h"
#include "lib/hash_table.h"
#include "lib/list.h"

namespace mirador {
namespace {

using testing::ElementsAre;
using testing::Pointee;
using testing::UnorderedElementsAre;

TEST(cor_string, BoundedFormattingCutsOrAborts) {
    std::array<char, 8> buf{};
    cor_snprintf(buf.data(), buf.size(), "%s", "seven..");
    EXPECT_STREQ(buf.data(), "seven..");
    EXPECT_DEATH(cor_snprintf(buf.data(), buf.size(), "%s", "eight..."), "ASSERT: .*length.*cor_string");
    cor_safe_snprintf(buf.data(), buf.size(), "%s", "much too long");
    EXPECT_STREQ(buf.data(), "much to");
    EXPECT_EQ(cor_format("%s-%d", std::string(5000, 'x').c_str(), 7), std::string(5000, 'x') + "-7");
    EXPECT_EQ(cor_format_path("%s", std::string(4095, 'x').c_str()).size(), 4095U);
    EXPECT_DEATH((void)cor_format_path("%s", std::string(4096, 'x').c_str()), "path_size");
}

TEST(cor_string, BoundedCopyingFillsAndTerminates) {
    std::array<char, 8> buf;
    buf.fill('#');
    cor_safe_strncpy(buf.data(), "ab", 6);
    EXPECT_EQ(std::memcmp(buf.data(), "ab\0\0\0\0##", 8), 0);
    cor_safe_strncpy(buf.data(), "abcdefgh", 8);
    EXPECT_STREQ(buf.data(), "abcdefg");

    // The size bounds the text appended, not the sum.
    std::array<char, 16> sum{};
    cor_safe_strncpy(sum.data(), "12345", sum.size());
    cor_safe_strncat(sum.data(), "abcdef", 5);
    EXPECT_EQ(std::memcmp(sum.data(), "1234\0abcd\0", 10), 0);
    cor_safe_strncpy(sum.data(), "123", sum.size());
    cor_safe_strncat(sum.data(), "ab", sum.size());
    EXPECT_STREQ(sum.data(), "123ab");
}

TEST(cor_uuid, AcceptsAnyLayoutOfWholeBytes) {
    const std::string canonical = "564d7a1b-2c3d-4e5f-6071-8293a4b5c6d7";
    struct {
        const char* text;
        bool valid;
        std::string normal;
    } const cases[] = {
        {"56 4d 7a 1b 2c 3d 4e 5f-60 71 82 93 a4 b5 c6 d7", true, canonical},
        {"{564D7A1B-2C3D-4E5F-6071-8293A4B5C6D7}", true, canonical},
        {"564d7a1b2c3d4e5f60718293a4b5c6d7", true, canonical},
        {"564d7a1b2c3d4e5f60718293a4b5c6d7 9", true, canonical},
        {"56", true, "56000000-0000-0000-0000-000000000000"},
        {"", true, "00000000-0000-0000-0000-000000000000"},
        {"5-6", false, "00000000-0000-0000-0000-000000000000"},
        {"564", false, "56000000-0000-0000-0000-000000000000"},
    };
    for (const auto& c : cases) {
        cor_uuid_t uuid{};
        uuid.value.fill(0xff);
        EXPECT_EQ(uuid_str_to_value(c.text, &uuid), c.valid) << c.text;
        EXPECT_EQ(normalize_uuid(c.text), c.normal) << c.text;
    }
}

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

template <typename T>
std::vector<T> elements(const list_t<T>& list) {
    std::vector<T> all;
    list_iter(list, [&all](const T& element) {
        all.push_back(element);
        return true;
    });
    return all;
}

TEST(list, KeepsOrderThroughAddDeleteAndPop) {
    list_t<int> list;
    EXPECT_FALSE(list_pop(list).has_value());
    EXPECT_EQ(list_count(list), 0);
    for (const int n : {1, 2, 3, 2, 4})
        list_add(list, n);
    EXPECT_TRUE(list_delete(list, 2));
    EXPECT_THAT(elements(list), ElementsAre(1, 3, 2, 4));
    EXPECT_FALSE(list_delete(list, 9));
    EXPECT_EQ(list_pop(list), 1);
    EXPECT_TRUE(list_delete(list, 4));  // the tail: the next one is appended behind the new tail
    list_add(list, 5);
    EXPECT_THAT(elements(list), ElementsAre(3, 2, 5));
    EXPECT_EQ(list_count(list), 3);
    while (list_pop(list))
        continue;
    EXPECT_TRUE(list_empty(list));
}

TEST(list, DeletesOwnedObjectsByIdentity) {
    list_t<std::shared_ptr<std::string>> shared;
    const auto first = std::make_shared<std::string>("same");
    const auto second = std::make_shared<std::string>("same");
    list_add(shared, first);
    list_add(shared, second);
    EXPECT_TRUE(list_delete(shared, second));
    EXPECT_THAT(elements(shared), ElementsAre(first));
    EXPECT_EQ(second.use_count(), 1);

    list_t<std::unique_ptr<int>> unique;
    list_add(unique, std::make_unique<int>(7));
    int* raw = nullptr;
    list_iter(unique, [&raw](std::unique_ptr<int>& element) {
        raw = element.get();
        return true;
    });
    EXPECT_TRUE(list_delete(unique, raw));
    EXPECT_DEATH(list_add(shared, std::shared_ptr<std::string>()), "data != nullptr");
}

// An element's destructor may use the list that it just left.
struct parting_t {
    explicit parting_t(list_t<std::unique_ptr<parting_t>>& left) : list(left) {}
    list_t<std::unique_ptr<parting_t>>& list;
    ~parting_t() {
        if (list_count(list) < 2)
            list_iter(list, [](auto&) { return true; });
    }
};

TEST(list, DestroysRemovedElementsOutsideItsMutex) {
    list_t<std::unique_ptr<parting_t>> list;
    list_add(list, std::make_unique<parting_t>(list));
    list_add(list, std::make_unique<parting_t>(list));
    parting_t* tail = nullptr;
    list_iter(list, [&tail](std::unique_ptr<parting_t>& element) {
        tail = element.get();
        return true;
    });
    EXPECT_TRUE(list_delete(list, tail));
    list_pop(list).reset();
    EXPECT_TRUE(list_empty(list));
}

}  // namespace
}  // namespace mirador
