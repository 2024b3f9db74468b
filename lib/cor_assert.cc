// SPDX-License-Identifier: Apache-2.0
#include "lib/cor_assert.h"

#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>

namespace mirador {

// Neither locks nor allocates: assertions stand in signal handlers and between fork and exec too.
void cor_assert_failed(const char* text, const char* file, unsigned line, const char* function) {
    std::array<char, 1024> message{};
    const int length =
        std::snprintf(message.data(), message.size(), "ASSERT: %s, %s:%u (%s)\n", text, file, line, function);
    if (length > 0 && write(STDERR_FILENO, message.data(), static_cast<std::size_t>(length)) < 0)
        std::abort();
    std::abort();
}

}  // namespace mirador
