// SPDX-License-Identifier: Apache-2.0
// The command "snapshot_scrub:<snapshot name>", which clients give by reading an extended attribute of that name on a
// VM's directory: the snapshot is removed, and the value tells how it went.
#pragma once

#include <cstddef>
#include <string>

namespace mirador {

inline constexpr const char* snapshot_command_name = "snapshot_scrub";

// Length of the longest value, terminator included.
inline constexpr std::size_t snapshot_command_max = 2048;

// Carries the command out on the VM whose exported directory and its shadow are given and returns the attribute's
// value: "0:" and what was done, or the error's number, a colon and its text. Failures are logged.
std::string snapshot_command(const std::string& path, const std::string& shadow_path, const std::string& attribute);

}  // namespace mirador
