// SPDX-License-Identifier: Apache-2.0
// Handle table: from text keys to typed handles, with a reference count for each key.
//
// The usual life of a shared object: create it and table_new_handle() (reference 1, the owner's); each user takes
// table_get_handle() and later table_release_handle(); whoever releases the last reference gets the handle back and
// with it the object's end.
//
// A table has no lock of its own: its user's mutex is held around every call. Misuse is a fatal assertion: a table or
// node whose magic or version is wrong, a null handle.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "lib/clock.h"
#include "lib/cor_assert.h"

namespace mirador {

inline constexpr std::uint32_t hash_table_magic = 0xFFDD0011;
inline constexpr std::uint32_t hash_table_version = 1;
inline constexpr std::uint32_t hash_node_magic = 0xAADD0011;
inline constexpr std::uint32_t hash_node_version = 1;

template <typename T>
struct hash_node_t {
    std::uint32_t magic = hash_node_magic;
    std::uint32_t version = hash_node_version;
    std::uint64_t ref = 1;
    std::time_t time = clock_now();  // of creation, seconds
    T handle;
};

template <typename T>
struct hash_table_t {
    std::uint32_t magic = hash_table_magic;
    std::uint32_t version = hash_table_version;
    std::unordered_map<std::string, hash_node_t<T>> hash;

    void check() const {
        cor_assert_text(magic == hash_table_magic, "magic == 0xFFDD0011");
        cor_assert_text(version == hash_table_version, "version == 1");
    }

    // The node of `key`; null when there is none.
    hash_node_t<T>* find(const std::string& key) {
        check();
        const auto found = hash.find(key);
        if (found == hash.end())
            return nullptr;
        cor_assert_text(found->second.magic == hash_node_magic, "magic == 0xAADD0011");
        cor_assert_text(found->second.version == hash_node_version, "version == 1");
        return &found->second;
    }
};

// Makes a table usable: a new one is already, one that went through table_free is again, and empty.
template <typename T>
void table_init(hash_table_t<T>* table) {
    cor_assert(table != nullptr);
    *table = {};
}

// Drops all handles and makes the table unusable.
template <typename T>
void table_free(hash_table_t<T>* table) {
    cor_assert(table != nullptr);
    table->check();
    table->hash.clear();
    table->magic = 0;
    table->version = 0;
}

// Puts `handle` under `key` with one reference. It does not look for an existing node: callers look up first, a second
// insert drops the first handle whatever its references.
template <typename T>
void table_new_handle(hash_table_t<T>& table, const std::string& key, T handle) {
    table.check();
    if constexpr (requires { handle == nullptr; })
        cor_assert(handle != nullptr);
    hash_node_t<T> node{.handle = std::move(handle)};
    table.hash.insert_or_assign(key, std::move(node));
}

// Takes a reference and returns the place of the handle, which is good until the last reference goes; null when `key`
// is absent.
template <typename T>
[[nodiscard]] T* table_get_handle(hash_table_t<T>& table, const std::string& key) {
    hash_node_t<T>* node = table.find(key);
    if (node == nullptr)
        return nullptr;
    node->ref++;
    return &node->handle;
}

// Gives a reference back. The last one removes the node and returns its handle; otherwise, also when `key` is absent,
// nothing.
template <typename T>
std::optional<T> table_release_handle(hash_table_t<T>& table, const std::string& key) {
    hash_node_t<T>* node = table.find(key);
    if (node == nullptr || --node->ref > 0)
        return std::nullopt;
    std::optional<T> handle(std::move(node->handle));
    table.hash.erase(key);
    return handle;
}

// References of `key` (low 32 bits); 0 when absent.
template <typename T>
std::uint32_t table_get_refcount(hash_table_t<T>& table, const std::string& key) {
    const hash_node_t<T>* node = table.find(key);
    return node == nullptr ? 0 : static_cast<std::uint32_t>(node->ref);
}

// Copies of all keys, in no particular order.
template <typename T>
std::vector<std::string> table_get_keys(const hash_table_t<T>& table) {
    table.check();
    std::vector<std::string> keys;
    keys.reserve(table.hash.size());
    for (const auto& [key, node] : table.hash)
        keys.push_back(key);
    return keys;
}

}  // namespace mirador
