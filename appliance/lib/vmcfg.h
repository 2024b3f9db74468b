// SPDX-License-Identifier: Apache-2.0
// The exported description of a VM.
#pragma once

#include <cstddef>
#include <ctime>

namespace mirador {

// Writes "access-time = <seconds>\n" into `buf` and returns its length; for access time 0 nothing, and 0. A text that
// does not fit in `buf_size` - 1 characters is a fatal assertion.
int cfg_print_timestamps(std::time_t access_time, char* buf, int buf_size);

}  // namespace mirador
