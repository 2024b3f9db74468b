// SPDX-License-Identifier: Apache-2.0
#include "lib/stacktrace.h"

#include <execinfo.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "lib/cor_assert.h"
#include "lib/log.h"

namespace mirador {

void stacktrace_get(stacktrace_t* st) {
    *st = {};
    st->frame_count = backtrace(st->frames.data(), static_cast<int>(st->frames.size()));
}

void stacktrace_string(const stacktrace_t& st, char* buf, std::size_t len) {
    std::size_t offset = 0;
    cor_assert(len > 0);
    buf[0] = '\0';
    for (std::int32_t i = 0; i < st.frame_count; i++) {
        const int written = std::snprintf(buf + offset, len - offset, " %p", st.frames[static_cast<std::size_t>(i)]);
        cor_assert(written > 0 && static_cast<std::size_t>(written) < len - offset);
        offset += static_cast<std::size_t>(written);
    }
}

void stacktrace_dump(const stacktrace_t& st, const char* label, bool symbols) {
    std::array<char, 1024> text{};
    stacktrace_string(st, text.data(), text.size());
    ts_printf("STACKDUMP(%s): %s\n", label, text.data());
    if (!symbols)
        return;
    const std::unique_ptr<char*, decltype(&std::free)> names(backtrace_symbols(st.frames.data(), st.frame_count),
                                                             &std::free);
    for (std::int32_t i = 0; names != nullptr && i < st.frame_count; i++)
        ts_printf("    %s\n", names.get()[i]);
}

}  // namespace mirador
