// SPDX-License-Identifier: Apache-2.0
// Which of two lists of paths mean the same files, where the same place may go under several names: mount roots, a
// datastore's uuid and its label, a working directory.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace mirador {

// For each path of `names` the index of its partner in `paths`; relative ones start at `dirname`. Partners are first
// those of the same path, then those that agree in the most components counted from the end, at least in the file name.
// Where several are as good, nobody is taken. No path is partner to two names.
std::vector<std::optional<std::size_t>> vmx_match(const std::vector<std::string>& names,
                                                  const std::vector<std::string>& paths, const std::string& dirname);

}  // namespace mirador
