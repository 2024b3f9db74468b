// SPDX-License-Identifier: Apache-2.0
// The command line of fuse-dmsetup: dmsetup's, for what it understands.
#pragma once

#include <span>
#include <string>

#include "lib/errdesc.h"
#include "tools/fuse-dmsetup/protocol.h"

namespace mirador {

extern const char command_usage[];

// What the words behind the program's name ask for. The table of a `create` is opened, or `input` taken when no file is
// named; what is no regular file is copied first. "/dev/mapper/NAME" stands for NAME. Errors: EINVAL for wrong usage;
// errno with the table file's name.
[[nodiscard]] errdesc_t* parse_command_line(std::span<const char* const> words, int input, request_t* request);

// Does it: prints to descriptors 1 and 2 and returns the exit status.
int run_command(const request_t& request);

}  // namespace mirador
