// SPDX-License-Identifier: Apache-2.0
#include "lib/cor_assert.h"

#include <cstdio>
#include <cstdlib>

namespace mirador {

void cor_assert_failed(const char* text, const char* file, unsigned line, const char* function) {
    std::fprintf(stderr, "ASSERT: %s, %s:%u (%s)\n", text, file, line, function);
    std::abort();
}

}  // namespace mirador
