// SPDX-License-Identifier: Apache-2.0
// A thread-safe singly linked list, walked by callback.
//
// Each operation holds the list's own mutex for its whole walk (list_empty and list_count take none). Callbacks run
// with it held: they must not call back into the same list, and whatever they lock comes after it. Elements are usually
// std::shared_ptr, std::unique_ptr or plain values; the list owns what it holds. An element leaves the list with its
// mutex released before it is destroyed.
//
// Misuse is a fatal assertion: a list or link whose magic word is wrong, a null element, a negative count.
#pragma once

#include <atomic>
#include <concepts>
#include <cstdint>
#include <forward_list>
#include <iterator>
#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

#include "lib/cor_assert.h"
#include "lib/log.h"
#include "lib/thread_annotations.h"

namespace mirador {

inline constexpr std::uint32_t list_magic_alive = 0xccaa8866;
inline constexpr std::uint32_t link_magic_alive = 0x55113377;

template <typename T>
struct link_t {
    explicit link_t(T element) : data(std::move(element)) {}
    std::uint32_t link_magic = link_magic_alive;
    T data;
};

template <typename T>
class list_t {
  public:
    list_t() = default;
    ~list_t() { static_cast<volatile std::uint32_t&>(list_magic_) = 0; }
    list_t(const list_t&) = delete;
    list_t& operator=(const list_t&) = delete;

    // Appends at the tail.
    friend void list_add(list_t& list, T data) {
        list._check();
        if constexpr (requires { data == nullptr; })
            cor_assert(data != nullptr);
        std::forward_list<link_t<T>> link;
        link.emplace_front(std::move(data));

        const mutex_lock_t lock(list.mutex_);
        list.links_.splice_after(list.tail_, link);
        ++list.tail_;
        list.count_++;
        cor_assert(list.count_ > 0);
    }

    // Removes the first element that is `data`: equal to it, or, for an owning pointer, pointing to the same object.
    // Whether there was one.
    template <typename U>
    friend bool list_delete(list_t& list, const U& data) {
        list._check();
        std::forward_list<link_t<T>> removed;
        const mutex_lock_t lock(list.mutex_);
        auto previous = list.links_.before_begin();
        for (auto next = list.links_.begin(); next != list.links_.end(); previous = next++) {
            _check_link(*next);
            if (!_is_same(next->data, data))
                continue;
            list._take_after(previous, &removed);
            return true;
        }
        return false;
    }

    // Removes the head and returns its element; nothing when the list is empty.
    friend std::optional<T> list_pop(list_t& list) {
        list._check();
        std::forward_list<link_t<T>> removed;
        const mutex_lock_t lock(list.mutex_);
        if (list.links_.empty())
            return std::nullopt;
        _check_link(list.links_.front());
        list._take_after(list.links_.before_begin(), &removed);
        return std::move(removed.front().data);
    }

    // Calls `callback(element)` from head to tail until one returns false.
    template <std::predicate<T&> callback_t>
    friend void list_iter(list_t& list, callback_t&& callback) {
        list._walk([&](T& data) { return callback(data); });
    }
    template <std::predicate<const T&> callback_t>
    friend void list_iter(const list_t& list, callback_t&& callback) {
        list._walk([&](const T& data) { return callback(data); });
    }

    // Whether `compare(element)` returns 0 for some element; stops there.
    template <typename compare_t>
    friend bool list_contains(const list_t& list, compare_t&& compare) {
        static_assert(std::is_same_v<std::invoke_result_t<compare_t&, const T&>, int>,
                      "a comparison returns an int that is 0 for a match, not a bool");
        bool keep_searching = true;
        list._walk([&](const T& data) { return keep_searching = compare(data) != 0; });
        return !keep_searching;
    }

    // Both look without the mutex.
    friend bool list_empty(const list_t& list) { return list_count(list) == 0; }
    friend std::int32_t list_count(const list_t& list) {
        list._check();
        return list.count_;
    }

    // Prints the number of elements, then calls `print(element)` for each; without it, prints each one's address.
    template <std::invocable<const T&> print_t>
    friend void list_dump(const list_t& list, print_t&& print) {
        list._check();
        ts_printf("list count: %d\n", list_count(list));
        list._walk([&](const T& data) {
            print(data);
            return true;
        });
    }
    friend void list_dump(const list_t& list) {
        list_dump(list, [&list](const T& data) {
            ts_printf("list %p: elem data %p\n", static_cast<const void*>(&list), _address(data));
        });
    }

  private:
    void _check() const {
        cor_assert_text(list_magic_ == list_magic_alive, "list_magic == 0xccaa8866");
        cor_assert_text(count_ >= 0, "count >= 0");
    }
    static void _check_link(const link_t<T>& link) {
        cor_assert_text(link.link_magic == link_magic_alive, "link_magic == 0x55113377");
    }

    template <typename callback_t>
    void _walk(callback_t callback) const {
        _check();
        const mutex_lock_t lock(mutex_);
        for (const link_t<T>& link : links_) {
            _check_link(link);
            if (!callback(link.data))
                return;
        }
    }
    template <typename callback_t>
    void _walk(callback_t callback) {
        _check();
        const mutex_lock_t lock(mutex_);
        for (link_t<T>& link : links_) {
            _check_link(link);
            if (!callback(link.data))
                return;
        }
    }

    // Moves the link behind `previous` out of the list, to be destroyed by the caller.
    void _take_after(typename std::forward_list<link_t<T>>::iterator previous, std::forward_list<link_t<T>>* removed)
        REQUIRES(mutex_) {
        if (std::next(previous) == tail_)
            tail_ = previous;
        removed->splice_after(removed->before_begin(), links_, previous);
        cor_assert(count_ > 0);
        count_--;
    }

    template <typename U>
    static bool _is_same(const T& element, const U& data) {
        if constexpr (requires { element == data; })
            return element == data;
        else
            return element.get() == data;
    }
    static const void* _address(const T& data) {
        if constexpr (std::is_pointer_v<T>)
            return data;
        else if constexpr (requires { data.get(); })
            return data.get();
        else
            return &data;
    }

    mutable mutex_t mutex_;
    std::uint32_t list_magic_ = list_magic_alive;
    std::atomic<std::int32_t> count_ = 0;
    std::forward_list<link_t<T>> links_ GUARDED_BY(mutex_);
    typename std::forward_list<link_t<T>>::iterator tail_ GUARDED_BY(mutex_) = links_.before_begin();
};

template <typename T>
std::unique_ptr<list_t<T>> list_new() {
    return std::make_unique<list_t<T>>();
}

// Frees the list and what it still owns, and sets *list to null.
template <typename T>
void list_free(std::unique_ptr<list_t<T>>* list) {
    cor_assert(list != nullptr);
    cor_assert(*list != nullptr);
    (void)list_count(**list);
    list->reset();
}

// Checks its argument only and frees nothing: elements belong to whoever empties the list.
template <typename T>
void list_free_list_and_objects(std::unique_ptr<list_t<T>>* list) {
    cor_assert(list != nullptr);
    cor_assert(*list != nullptr);
    (void)list_count(**list);
}

}  // namespace mirador
