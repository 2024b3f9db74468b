// SPDX-License-Identifier: Apache-2.0
// The input of a fuzz target as a file, for code that reads files.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "lib/cor_assert.h"
#include "lib/file_io.h"

namespace mirador {

// One file in memory, filled anew for each input.
class memory_file_t {
  public:
    memory_file_t() : fd_(memfd_create("input", MFD_CLOEXEC)) { cor_assert(fd_); }

    void fill(const std::uint8_t* data, std::size_t size) {
        std::size_t written = 0;
        cor_assert(ftruncate(fd_.get(), 0) == 0);
        cor_assert(!cor_pwrite(fd_.get(), data, size, 0, &written) && written == size);
    }
    int fd() const { return fd_.get(); }
    std::string path() const { return "/proc/self/fd/" + std::to_string(fd_.get()); }

  private:
    unique_fd fd_;
};

// A stream that keeps nothing, for what prints.
inline std::FILE* null_stream() {
    static const file_ptr stream(std::fopen("/dev/null", "we"));
    cor_assert(stream);
    return stream.get();
}

}  // namespace mirador
