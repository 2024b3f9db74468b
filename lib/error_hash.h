// SPDX-License-Identifier: Apache-2.0
// The last error seen on each exported path, kept for whoever asks the path about it later. Keys are paths as the mount
// gives them, from its root.
//
// Any thread may call; one mutex guards the memory and is a leaf: nothing is locked or called under it. It holds
// error_hash_max_paths paths at most; beyond that the path whose error was saved longest ago is forgotten, so that
// a client that probes names cannot make the program grow (a kept error takes some 7 KiB).
#pragma once

#include <cstddef>
#include <string>

#include "lib/errdesc.h"

namespace mirador {

inline constexpr std::size_t error_hash_max_paths = 4096;

// Remembers a copy of `e` as the error of `path`, in place of an earlier one; null forgets it.
void error_hash_save(const std::string& path, const errdesc_t* e);

// Copies the error of `path` over the calling thread's descriptor, with the thread, time and place of its raising, and
// returns that; null (the descriptor untouched) when the path has none.
errdesc_t* error_hash_get(const std::string& path);

// Forgets the error of `path`, if any. Takes the mutex itself, as the others do.
void error_hash_clear(const std::string& path);

}  // namespace mirador
