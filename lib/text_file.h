// SPDX-License-Identifier: Apache-2.0
// Small text files: reading one that somebody else may have written, replacing one of our own.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <functional>
#include <string>

#include "lib/errdesc.h"

namespace mirador {

// Whether a file may be read, asked of what a descriptor is open on before anything is read from it: its path may lead
// elsewhere by then.
using opened_file_check_t = std::function<errdesc_t*(int fd)>;

// Reads the whole file into *text. It neither waits for a pipe nor touches a device. Errors: errno with the path;
// EINVAL "<kind> refused, not a regular file: <path>" or "<kind> refused, too long: <path>" above `max_size` bytes;
// those of `check`, where there is one.
[[nodiscard]] errdesc_t* read_text_file(const std::string& path, const char* kind, std::size_t max_size,
                                        std::string* text, const opened_file_check_t& check = nullptr);

// Puts a file with `text` in the place of `path`, which has the permissions `mode` and the access and modification
// times of `original`, and makes its directory. It is written under another name, so nobody sees half of it, and
// several may do so at once. Errors: errno with the path or with "Cannot make directory %s", and nothing is left of the
// attempt.
[[nodiscard]] errdesc_t* replace_text_file(const std::string& path, const std::string& text, mode_t mode,
                                           const struct stat& original);

}  // namespace mirador
