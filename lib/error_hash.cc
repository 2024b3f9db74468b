// SPDX-License-Identifier: Apache-2.0
#include "lib/error_hash.h"

#include <cstdint>
#include <map>
#include <memory>

#include "lib/hash_table.h"
#include "lib/thread_annotations.h"

namespace mirador {
namespace {

struct saved_error_t {
    errdesc_t error;
    std::uint64_t turn;  // counts saves: the lowest is the oldest
};

// Each path of `table` stands in `by_age` under its turn, and nothing else does.
struct error_memory_t {
    mutex_t mutex;
    hash_table_t<std::unique_ptr<saved_error_t>> table GUARDED_BY(mutex);
    std::map<std::uint64_t, std::string> by_age GUARDED_BY(mutex);
    std::uint64_t turns GUARDED_BY(mutex) = 0;
};

error_memory_t& memory() {
    static error_memory_t the_memory;
    return the_memory;
}

void forget(error_memory_t& mem, const std::string& path) REQUIRES(mem.mutex) {
    if (const auto saved = table_release_handle(mem.table, path))
        mem.by_age.erase((*saved)->turn);
}

}  // namespace

void error_hash_save(const std::string& path, const errdesc_t* e) {
    error_memory_t& mem = memory();
    const mutex_lock_t lock(mem.mutex);
    forget(mem, path);
    if (e == nullptr)
        return;
    if (mem.by_age.size() >= error_hash_max_paths)
        forget(mem, std::string(mem.by_age.begin()->second));
    const std::uint64_t turn = mem.turns++;
    table_new_handle(mem.table, path, std::make_unique<saved_error_t>(saved_error_t{*e, turn}));
    mem.by_age.emplace(turn, path);
}

errdesc_t* error_hash_get(const std::string& path) {
    error_memory_t& mem = memory();
    const mutex_lock_t lock(mem.mutex);
    const std::unique_ptr<saved_error_t>* saved = table_get_handle(mem.table, path);
    if (saved == nullptr)
        return nullptr;
    errdesc_t* e = _errdesc_copy_to_thr(&(*saved)->error);
    table_release_handle(mem.table, path);
    return e;
}

void error_hash_clear(const std::string& path) {
    error_memory_t& mem = memory();
    const mutex_lock_t lock(mem.mutex);
    forget(mem, path);
}

}  // namespace mirador
