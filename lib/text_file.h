// SPDX-License-Identifier: Apache-2.0
// Reading a small text file that somebody else may have written.
#pragma once

#include <cstddef>
#include <string>

#include "lib/errdesc.h"

namespace mirador {

// Reads the whole file into *text. It neither waits for a pipe nor touches a device. Errors: errno with the path;
// EINVAL "<kind> refused, not a regular file: <path>" or "<kind> refused, too long: <path>" above `max_size` bytes.
[[nodiscard]] errdesc_t* read_text_file(const std::string& path, const char* kind, std::size_t max_size,
                                        std::string* text);

}  // namespace mirador
