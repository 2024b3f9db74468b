// SPDX-License-Identifier: Apache-2.0
#include "lib/errdesc.h"

#include <sys/xattr.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "lib/cor_assert.h"
#include "lib/cor_string.h"

namespace mirador {
namespace {

constexpr errnum_t max_system_errnum = 131;
constexpr std::size_t fmt_size = 512;

struct errnum_str_t {
    const char* string;
    errnum_t number;
};

constexpr std::array<errnum_str_t, 23> errnum_table = {{
    {"base", ERR_BASE},
    {"out of memory", ERR_OUT_OF_MEM},
    {"filesystem not mounted", ERR_FS_NOT_MOUNTED},
    {"out of range", ERR_OUT_OF_RANGE},
    {"overflow", ERR_OVERFLOW},
    {"unmatched", ERR_UNMATCHED},
    {"controller down", ERR_CONTROLLER_DOWN},
    {"json parse error", ERR_JSON_PARSE_ERROR},
    {"json missing field", ERR_JSON_MISSING_FIELD},
    {"invalid argument", ERR_INVALID_ARG},
    {"invalid command", ERR_INVALID_COMMAND},
    {"not found", ERR_OBJ_NOT_FOUND},
    {"already exists", ERR_OBJ_EXISTS},
    {"not available", ERR_NOT_AVAILABLE},
    {"I/O error", ERR_IO},
    {"cancelled", ERR_CANCELLED},
    {"insufficient access rights", ERR_INSUFFICIENT_PERMS},
    {"not supported", ERR_NOT_SUPPORTED},
    {"connection refused", ERR_CONNECTION_REFUSED},
    {"unknown error", ERR_UNKNOWN},
    {"registry key not found", ERR_REGISTRY_KEY_NOT_FOUND},
    {"max", ERR_MAX},
    {"NULL", 0},
}};
static_assert(errnum_table[ERR_MAX - ERR_BASE].number == ERR_MAX);

// The calling thread's descriptor, freed when the thread ends.
errdesc_t* thread_descriptor() {
    thread_local std::unique_ptr<errdesc_t> descriptor;
    if (descriptor == nullptr) {
        descriptor = std::make_unique<errdesc_t>();
        std::memset(descriptor.get(), 0xcc, sizeof(errdesc_t));
        descriptor->sequence = 0;
    }
    return descriptor.get();
}

errdesc_t* _intern_errdesc_set_str(errnum_t number, const char* text, unsigned line, const char* file) {
    errdesc_t* e = thread_descriptor();
    e->status = ERRDESC_ALLOCATED;
    gettimeofday(&e->timestamp, nullptr);
    if (gethostname(e->hostname, sizeof e->hostname) != 0)
        e->hostname[0] = '\0';
    e->hostname[sizeof e->hostname - 1] = '\0';
    e->number = number;
    cor_safe_strncpy(e->string, text, sizeof e->string);
    e->linenumber = line;
    cor_safe_strncpy(e->filename, file, sizeof e->filename);
    e->sequence++;
    e->tid = pthread_self();
    stacktrace_get(&e->bt_buf);
    return e;
}

const char* level_word(int level) {
    switch (level) {
        case ERRDESC_INFO:
            return "INFO";
        case ERRDESC_DEBUG:
            return "DEBUG";
        case ERRDESC_WARNING:
            return "WARNING";
        default:
            return "ERROR";
    }
}

// The number published in "user.err_num" of `path`; 0 when there is none.
errnum_t published_number(const std::string& path) {
    constexpr std::size_t value_size = 64;
    std::array<char, value_size + 1> text{};
    const ssize_t size = getxattr(path.c_str(), "user.err_num", text.data(), value_size);
    return size > 0 ? static_cast<errnum_t>(std::strtol(text.data(), nullptr, 10)) : 0;
}

// The text published in "user.err_string" of `path`; empty when there is none.
std::string published_string(const std::string& path) {
    const ssize_t size = getxattr(path.c_str(), "user.err_string", nullptr, 0);
    if (size < 1)
        return {};
    std::string text(static_cast<std::size_t>(size), '\0');
    const ssize_t got = getxattr(path.c_str(), "user.err_string", text.data(), text.size());
    text.resize(got > 0 ? strnlen(text.data(), static_cast<std::size_t>(got)) : 0);
    return text;
}

}  // namespace

std::string errnum_text(errnum_t number) {
    cor_assert(errnum_table[ERR_MAX - ERR_BASE].number == ERR_MAX);
    if (number > ERR_BASE && number < ERR_MAX)
        return errnum_table[static_cast<std::size_t>(number - ERR_BASE)].string;
    if (number < 1 || number > max_system_errnum)
        return "unknown error";
    std::array<char, 1024> buf{};
    const char* text = strerror_r(number, buf.data(), buf.size());
    cor_assert(text != nullptr);
    return text;
}

errdesc_t* _errdesc_set(errnum_t number, unsigned line, const char* file) {
    return _intern_errdesc_set_str(number, errnum_text(number).c_str(), line, file);
}

errdesc_t* _errdesc_set_str(errnum_t number, const std::string& str, unsigned line, const char* file) {
    return _intern_errdesc_set_str(number, (str + ": " + errnum_text(number)).c_str(), line, file);
}

errdesc_t* _errdesc_set_fmt(errnum_t number, unsigned line, const char* file, const char* format, ...) {
    std::array<char, fmt_size> text{};
    std::va_list args;
    va_start(args, format);
    std::vsnprintf(text.data(), text.size(), format, args);
    va_end(args);
    return _intern_errdesc_set_str(number, text.data(), line, file);
}

errdesc_t* _errdesc_exit_status(int status, const std::string& str, unsigned line, const char* file) {
    constexpr int signal_mask = 0x7f;
    if (status == -1)
        return _errdesc_set_str(errno, str, line, file);
    if ((status & signal_mask) != 0)
        return _errdesc_set_str(EINVAL, str, line, file);
    const int code = (status >> 8) & 0xff;
    return code == 0 ? nullptr : _intern_errdesc_set_str(code, str.c_str(), line, file);
}

errdesc_t* _errdesc_set_extended_err(errnum_t number, const std::string& path, unsigned line, const char* file) {
    if (path.empty())
        return _errdesc_set(number, line, file);
    const errnum_t published = published_number(path);
    if (published == 0)
        return _errdesc_set_str(number, path, line, file);
    const std::string text = published_string(path);
    return _errdesc_set_str(published, text.empty() ? path : text, line, file);
}

void _errdesc_fprint(std::FILE* stream, errdesc_t* e, int level) {
    tm local{};
    std::array<char, 64> time_text{};
    cor_assert(localtime_r(&e->timestamp.tv_sec, &local) != nullptr);
    std::strftime(time_text.data(), time_text.size(), "%Y-%m-%d %H:%M:%S", &local);
    std::fprintf(stream, "%s.%06ld: %s [thread:%lu, where:%s:%u, error:%d] %s\n", time_text.data(),
                 static_cast<long>(e->timestamp.tv_usec), level_word(level), e->tid, e->filename, e->linenumber,
                 e->number, e->string);
    e->status |= ERRDESC_PRINTED;
}

void _errdesc_print(errdesc_t* e, int level) {
    _errdesc_fprint(stdout, e, level);
}

void _errdesc_log(errdesc_t* e, int level) {
    _errdesc_print(e, level);
    syslog(level, "%s [thread:%lu, where:%s:%u, error:%d] %s\n", level_word(level), e->tid, e->filename, e->linenumber,
           e->number, e->string);
    e->status |= ERRDESC_LOGGED;
}

errdesc_t* _errdesc_copy_to_thr(const errdesc_t* e) {
    errdesc_t* own = thread_descriptor();
    if (own != e)
        *own = *e;
    return own;
}

errdesc_keeper_t::errdesc_keeper_t() : kept_(std::make_unique<errdesc_t>(*thread_descriptor())) {}

errdesc_keeper_t::~errdesc_keeper_t() {
    errdesc_t* own = thread_descriptor();
    const std::uint64_t sequence = own->sequence;
    *own = *kept_;
    own->sequence = sequence;
}

}  // namespace mirador
