// SPDX-License-Identifier: Apache-2.0
#include "lib/list.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace mirador {
namespace {

using testing::ElementsAre;

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

TEST(list, WalksStopWhenToldTo) {
    list_t<int> list;
    for (const int n : {5, 6, 7})
        list_add(list, n);
    int seen = 0;
    list_iter(list, [&seen](int& n) {
        seen++;
        n *= 10;
        return n != 60;
    });
    EXPECT_EQ(seen, 2);
    EXPECT_THAT(elements(list), ElementsAre(50, 60, 7));

    int compared = 0;
    const auto is_60 = [&compared](int n) {
        compared++;
        return n - 60;
    };
    EXPECT_TRUE(list_contains(list, is_60));
    EXPECT_EQ(compared, 2);
    EXPECT_FALSE(list_contains(list, [](int n) { return n == 8 ? 0 : 1; }));
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

TEST(list, ThreadsShareIt) {
    constexpr int per_thread = 200;
    list_t<int> list;
    std::atomic<int> popped = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&list, &popped, t] {
            for (int i = 0; i < per_thread; i++) {
                list_add(list, t * per_thread + i);
                (void)list_contains(list, [](int n) { return n + 1; });
                if (i % 2 == 1 && list_pop(list))
                    popped++;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(popped, 4 * per_thread / 2);
    EXPECT_EQ(list_count(list), 4 * per_thread / 2);
    EXPECT_EQ(elements(list).size(), 4U * per_thread / 2);
}

}  // namespace
}  // namespace mirador
