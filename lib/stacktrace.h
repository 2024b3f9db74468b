// SPDX-License-Identifier: Apache-2.0
// Call stacks, as error descriptors carry them.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace mirador {

struct stacktrace_t {
    static constexpr std::size_t max_frames = 40;
    std::int32_t frame_count;
    std::array<void*, max_frames> frames;
};

// Captures up to 40 return addresses of the calling thread; the rest of the record is zero.
void stacktrace_get(stacktrace_t* st);

// Writes " %p" for each frame into `buf`; running past `len` bytes is a fatal assertion.
void stacktrace_string(const stacktrace_t& st, char* buf, std::size_t len);

// Logs "STACKDUMP(<label>): <addresses>", and with `symbols` a line with the symbol text of each frame.
void stacktrace_dump(const stacktrace_t& st, const char* label, bool symbols);

}  // namespace mirador
