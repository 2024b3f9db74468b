// SPDX-License-Identifier: Apache-2.0
#include "lib/log.h"

#include <sys/time.h>

#include <array>
#include <atomic>
#include <ctime>
#include <string>

#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/thread_annotations.h"

namespace mirador {
namespace {

std::atomic<int> _debug_level = 0;
mutex_t _ts_printf_mutex;

}  // namespace

void set_debug_level(int level) {
    _debug_level.store(level, std::memory_order_relaxed);
}

int get_debug_level() {
    return _debug_level.load(std::memory_order_relaxed);
}

void ts_vfprintf(std::FILE* stream, const char* format, std::va_list args) {
    timeval now{};
    tm local{};
    std::array<char, 64> text{};
    gettimeofday(&now, nullptr);
    cor_assert(localtime_r(&now.tv_sec, &local) != nullptr);
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &local);

    const std::string line =
        cor_format("%s.%06ld: ", text.data(), static_cast<long>(now.tv_usec)) + cor_vformat(format, args);
    const mutex_lock_t lock(_ts_printf_mutex);
    std::fwrite(line.data(), 1, line.size(), stream);  // at once: others write to the same file
}

void ts_fprintf(std::FILE* stream, const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    ts_vfprintf(stream, format, args);
    va_end(args);
}

void ts_printf(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    ts_vfprintf(stdout, format, args);
    va_end(args);
}

void ts_dprintf(int level, const char* format, ...) {
    if (get_debug_level() < level)
        return;
    std::va_list args;
    va_start(args, format);
    ts_vfprintf(stdout, format, args);
    va_end(args);
}

}  // namespace mirador
