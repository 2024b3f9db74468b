// SPDX-License-Identifier: Apache-2.0
// Digests of data buffers, for tracing reads.
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "lib/errdesc.h"

namespace mirador {

using md5_digest_t = std::array<std::uint8_t, 16>;

// 32 lower-case hexadecimal digits.
std::string md5_to_str(const md5_digest_t& digest);

// Whether any byte of the buffer is not zero.
bool buf_has_non_zero_content(const void* buf, std::size_t len);

// Whether DEBUG_digest_buf computes digests. Nothing sets it: it is there for a debugger.
extern std::atomic<bool> _verbose_debug_enabled;

// Traces the outcome of a read by `func`: a line with `size` and `err` when `size` is below 1; otherwise, only with
// _verbose_debug_enabled and a buffer that is not all zero, a line with its MD5 digest.
void DEBUG_digest_buf(const char* func, const char* path, off_t offset, ssize_t size, const void* buf,
                      const errdesc_t* err);

}  // namespace mirador
