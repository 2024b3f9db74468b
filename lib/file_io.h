// SPDX-License-Identifier: Apache-2.0
// Descriptors, streams and positional transfers.
#pragma once

#include <dirent.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>

#include "lib/errdesc.h"

namespace mirador {

// Owns one descriptor; -1 when it owns none. Closing logs a failure, as cor_safe_close does.
class unique_fd {
  public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    unique_fd(unique_fd&& other) noexcept : fd_(other.release()) {}
    unique_fd& operator=(unique_fd&& other) noexcept {
        if (this != &other)
            reset(other.release());
        return *this;
    }
    ~unique_fd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1);

  private:
    int fd_ = -1;
};

struct file_closer_t {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
struct dir_closer_t {
    void operator()(DIR* dir) const { closedir(dir); }
};
using file_ptr = std::unique_ptr<std::FILE, file_closer_t>;
using dir_ptr = std::unique_ptr<DIR, dir_closer_t>;

// Closes *fd and sets it to -1 in any case; a failure is logged at level 6 with "failed closing fd %d".
void cor_safe_close(int* fd);

// Closes a stream and sets *fp to null. A stream that is not at its end is drained first, so that a child writing into
// the pipe is not killed by a broken pipe; discarded bytes other than a lone line feed are logged (52), as are a set
// error flag and a failed close, all at level 6.
void cor_safe_fclose(std::FILE** fp);

// Marks (closes) every descriptor from 3 up as close-on-exec. Safe between fork and exec.
void cor_close_on_exec();
void cor_close_non_std_files();

// Transfers `count` bytes at `offset`, going on after short and interrupted transfers. *done is the number of bytes
// transferred: less than `count` only at the end of the file. Error: errno with "cor_pread(fd, buf, count, offset)
// failed" (cor_pwrite), *done unset.
[[nodiscard]] errdesc_t* cor_pread(int fd, void* buf, std::size_t count, off_t offset, std::size_t* done);
[[nodiscard]] errdesc_t* cor_pwrite(int fd, const void* buf, std::size_t count, off_t offset, std::size_t* done);

}  // namespace mirador
