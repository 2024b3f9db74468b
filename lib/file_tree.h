// SPDX-License-Identifier: Apache-2.0
// Making and removing directory trees.
#pragma once

#include <sys/types.h>

#include <string>

#include "lib/errdesc.h"

namespace mirador {

// Creates `path` with every missing parent, each with exactly `mode`, whatever the process's file-creation mask
// says. 0, also when it exists; -1 with errno.
[[nodiscard]] int mkdirp(const std::string& path, mode_t mode);

// Removes a tree; a missing `path` is success. Names that begin with two dots are left in place, and then the last
// step, removing `path` itself, fails, which is printed and not reported. Errors (also logged at level 3): errno with
// `path` when it cannot be opened, "rmdirr(…): unlink(…) failed: …" for an entry; the first one stops the removal.
[[nodiscard]] errdesc_t* rmdirr(const std::string& path);

}  // namespace mirador
