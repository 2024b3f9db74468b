// SPDX-License-Identifier: Apache-2.0
// Error descriptors. Every fallible function returns an errdesc_t*; null means success.
//
// Descriptors are not allocated per error: each thread owns exactly one, and raising an error overwrites it. A returned
// pointer is therefore valid until the same thread raises its next error: log it or pass it up before calling anything
// else that may fail, and never store it. Raising touches only the calling thread's descriptor and needs no lock.
//
// Error numbers are the system's (1 to 131) or the program's own (ERR_BASE to ERR_MAX).
#pragma once

#include <pthread.h>
#include <sys/time.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "lib/stacktrace.h"

namespace mirador {

using errnum_t = std::int32_t;

enum : errnum_t {
    ERR_BASE = 1000,
    ERR_OUT_OF_MEM = 1001,
    ERR_FS_NOT_MOUNTED = 1002,
    ERR_OUT_OF_RANGE = 1003,
    ERR_OVERFLOW = 1004,
    ERR_UNMATCHED = 1005,
    ERR_CONTROLLER_DOWN = 1006,
    ERR_JSON_PARSE_ERROR = 1007,
    ERR_JSON_MISSING_FIELD = 1008,
    ERR_INVALID_ARG = 1009,
    ERR_INVALID_COMMAND = 1010,
    ERR_OBJ_NOT_FOUND = 1011,
    ERR_OBJ_EXISTS = 1012,
    ERR_NOT_AVAILABLE = 1013,
    ERR_IO = 1014,
    ERR_CANCELLED = 1015,
    ERR_INSUFFICIENT_PERMS = 1016,
    ERR_NOT_SUPPORTED = 1017,
    ERR_CONNECTION_REFUSED = 1018,
    ERR_UNKNOWN = 1019,
    ERR_REGISTRY_KEY_NOT_FOUND = 1020,
    ERR_MAX = 1021,
};

// Bits of errdesc_t::status.
enum errdesc_status_t : std::uint32_t {
    ERRDESC_ALLOCATED = 1,
    ERRDESC_PRINTED = 2,
    ERRDESC_LOGGED = 4,
};

// Priorities of printed and logged errors: the system log's.
enum : int { ERRDESC_ERROR = 3, ERRDESC_WARNING = 4, ERRDESC_NOTICE = 5, ERRDESC_INFO = 6, ERRDESC_DEBUG = 7 };

struct errdesc_t {
    pthread_t tid;             // the thread that raised it
    timeval timestamp;         // wall clock at raising
    std::uint32_t status;      // errdesc_status_t bits
    char hostname[1024];       // this machine's name at raising
    errnum_t number;           //
    char string[1024];         // the message
    std::uint32_t linenumber;  // where it was raised
    char filename[4096];
    std::uint64_t sequence;  // errors raised on this thread so far
    stacktrace_t bt_buf;     // call stack at raising
};

// The text that belongs to a number: the program's own, the system's, or "unknown error".
std::string errnum_text(errnum_t number);

// Raises `number` with its own text.
errdesc_t* _errdesc_set(errnum_t number, unsigned line, const char* file);

// Raises `number` with "<str>: <text of the number>". `str` is no format: percent signs in it stand for themselves.
errdesc_t* _errdesc_set_str(errnum_t number, const std::string& str, unsigned line, const char* file);

// Raises `number` with the formatted text alone, cut at 511 characters.
[[gnu::format(printf, 4, 5)]] errdesc_t* _errdesc_set_fmt(errnum_t number, unsigned line, const char* file,
                                                          const char* format, ...);

// The outcome of a child process from its wait status: -1 raises errno with `str`; an end by signal raises EINVAL with
// `str`; an exit code other than 0 raises that code with `str` alone as text; exit code 0 is no error (null).
errdesc_t* _errdesc_exit_status(int status, const std::string& str, unsigned line, const char* file);

// Raises what the file system publishes for `path` in the extended attributes "user.err_num" and "user.err_string";
// where it publishes nothing, `number` with `path`; with an empty path `number` alone.
errdesc_t* _errdesc_set_extended_err(errnum_t number, const std::string& path, unsigned line, const char* file);

// Writes "<time>: <LEVEL> [thread:…, where:<file>:<line>, error:<number>] <text>" to a stream, to standard output, or
// to standard output and the system log. Levels are the ERRDESC_* priorities. Marks the descriptor printed (logged).
void _errdesc_fprint(std::FILE* stream, errdesc_t* e, int level);
void _errdesc_print(errdesc_t* e, int level);
void _errdesc_log(errdesc_t* e, int level);

// Copies a whole descriptor, place and time included, over the calling thread's and returns that.
errdesc_t* _errdesc_copy_to_thr(const errdesc_t* e);

// While one lives, errors may be raised and logged on the way (by clean-up, say); at its end the calling thread's
// descriptor is again what it was, but for `sequence`, which goes on counting.
class errdesc_keeper_t {
  public:
    errdesc_keeper_t();
    ~errdesc_keeper_t();
    errdesc_keeper_t(const errdesc_keeper_t&) = delete;
    errdesc_keeper_t& operator=(const errdesc_keeper_t&) = delete;

  private:
    std::unique_ptr<const errdesc_t> kept_;
};

}  // namespace mirador

#define errdesc_set(number) ::mirador::_errdesc_set(number, __LINE__, __FILE__)
#define errdesc_set_str(number, str) ::mirador::_errdesc_set_str(number, str, __LINE__, __FILE__)
#define errdesc_set_fmt(number, ...) ::mirador::_errdesc_set_fmt(number, __LINE__, __FILE__, __VA_ARGS__)
#define errdesc_exit_status(status, str) ::mirador::_errdesc_exit_status(status, str, __LINE__, __FILE__)
#define errdesc_set_extended_err(number, path) ::mirador::_errdesc_set_extended_err(number, path, __LINE__, __FILE__)

// Passes an error of `call` up to the caller.
#define RETURN_IF_ERROR(call)                       \
    do {                                            \
        if (::mirador::errdesc_t* _raised = (call)) \
            return _raised;                         \
    } while (false)
