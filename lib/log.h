// SPDX-License-Identifier: Apache-2.0
// Timestamped log lines. They go to standard output, which start-up points at the log file.
//
// One process-wide mutex makes each line whole; the time is taken before it, so under contention lines may stand
// slightly out of time order. The debug level is read and written without a lock; a new level holds for the lines
// printed afterwards. Level 2 prints a line for each file-system call, level 3 details of single entries.
#pragma once

#include <cstdarg>
#include <cstdio>

namespace mirador {

void set_debug_level(int level);
int get_debug_level();

// One line to standard output: "YYYY-MM-DD HH:MM:SS.uuuuuu: " and the text, which carries its own line end.
[[gnu::format(printf, 1, 2)]] void ts_printf(const char* format, ...);

// As ts_printf, but only while the debug level is at least `level`.
[[gnu::format(printf, 2, 3)]] void ts_dprintf(int level, const char* format, ...);

// The same to any stream.
[[gnu::format(printf, 2, 3)]] void ts_fprintf(std::FILE* stream, const char* format, ...);
[[gnu::format(printf, 2, 0)]] void ts_vfprintf(std::FILE* stream, const char* format, std::va_list args);

}  // namespace mirador
