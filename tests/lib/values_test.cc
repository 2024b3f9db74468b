// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <array>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "lib/cor_string.h"
#include "lib/cor_uuid.h"
#include "lib/list.h"

namespace mirador {
namespace {

using testing::ElementsAre;

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
