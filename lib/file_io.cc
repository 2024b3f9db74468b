// SPDX-License-Identifier: Apache-2.0
#include "lib/file_io.h"

#include <linux/close_range.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>

#include "lib/cor_assert.h"

namespace mirador {
namespace {

constexpr unsigned first_non_std_fd = 3;
constexpr std::size_t drain_size = 1024;
constexpr errnum_t drained_errnum = 52;

void log_own_error(errdesc_t* e) {
    _errdesc_log(e, ERRDESC_INFO);
}

// Reads the stream to its end; the bytes read, a read of exactly one line feed not counted.
std::size_t drain(std::FILE* fp) {
    std::array<char, drain_size> chunk{};
    std::size_t total = 0;
    for (;;) {
        const std::size_t got = std::fread(chunk.data(), 1, chunk.size(), fp);
        if (got == 0)
            return total;
        if (got != 1 || chunk[0] != '\n')
            total += got;
    }
}

// Repeats `transfer(done)`, which moves what is left after `done` bytes, until `count` bytes are moved or one moves
// nothing. False with errno on failure.
template <typename transfer_t>
bool transfer_all(std::size_t count, std::size_t* done, transfer_t transfer) {
    std::size_t total = 0;
    while (total < count) {
        const ssize_t moved = transfer(total);
        if (moved == 0)
            break;
        if (moved > 0)
            total += static_cast<std::size_t>(moved);
        else if (errno != EINTR)
            return false;
    }
    *done = total;
    return true;
}

errdesc_t* transfer_error(const char* name, int fd, const void* buf, std::size_t count, off_t offset) {
    return errdesc_set_fmt(errno, "%s(%d, %p, %zd, %jd) failed", name, fd, buf, static_cast<ssize_t>(count),
                           static_cast<std::intmax_t>(offset));
}

}  // namespace

void unique_fd::reset(int fd) {
    if (fd_ >= 0)
        cor_safe_close(&fd_);
    fd_ = fd;
}

void cor_safe_close(int* fd) {
    cor_assert(fd != nullptr);
    if (close(*fd) != 0) {
        const int number = errno;
        const errdesc_keeper_t keep;
        log_own_error(errdesc_set_fmt(number, "failed closing fd %d", *fd));
        errno = number;
    }
    *fd = -1;
}

void cor_safe_fclose(std::FILE** fp) {
    cor_assert(fp != nullptr);
    cor_assert(*fp != nullptr);
    const int number = errno;  // of the stream's failure, before anything is called
    const errdesc_keeper_t keep;
    void* const stream = *fp;
    if (std::ferror(*fp) != 0)
        log_own_error(errdesc_set_fmt(number, "cor_safe_fclose(%p)", stream));
    if (std::feof(*fp) == 0) {
        if (const std::size_t discarded = drain(*fp); discarded != 0)
            log_own_error(errdesc_set_fmt(drained_errnum, "cor_safe_fdrain(%p): discarded %zd bytes", stream,
                                          static_cast<ssize_t>(discarded)));
    }
    if (std::fclose(*fp) != 0)
        log_own_error(errdesc_set_fmt(errno, "cor_safe_fclose(%p)", stream));
    *fp = nullptr;
}

void cor_close_on_exec() {
    cor_assert(close_range(first_non_std_fd, ~0U, CLOSE_RANGE_CLOEXEC) == 0);
}

void cor_close_non_std_files() {
    cor_assert(close_range(first_non_std_fd, ~0U, 0) == 0);
}

errdesc_t* cor_pread(int fd, void* buf, std::size_t count, off_t offset, std::size_t* done) {
    cor_assert(buf != nullptr);
    cor_assert(done != nullptr);
    const auto read_rest = [&](std::size_t at) {
        return pread(fd, static_cast<char*>(buf) + at, count - at, offset + static_cast<off_t>(at));
    };
    return transfer_all(count, done, read_rest) ? nullptr : transfer_error("cor_pread", fd, buf, count, offset);
}

errdesc_t* cor_pwrite(int fd, const void* buf, std::size_t count, off_t offset, std::size_t* done) {
    cor_assert(buf != nullptr);
    cor_assert(done != nullptr);
    const auto write_rest = [&](std::size_t at) {
        return pwrite(fd, static_cast<const char*>(buf) + at, count - at, offset + static_cast<off_t>(at));
    };
    return transfer_all(count, done, write_rest) ? nullptr : transfer_error("cor_pwrite", fd, buf, count, offset);
}

}  // namespace mirador
