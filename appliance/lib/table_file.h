// SPDX-License-Identifier: Apache-2.0
// A temporary file for a device-mapper table.
//
// Whoever writes the lines takes for granted that writing succeeds. A full or failing disk must not end the process, so
// the stream accepts everything and remembers the first fault, which finish() reports.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>
#include <vector>

#include "lib/errdesc.h"
#include "lib/file_io.h"

namespace mirador {

class table_file_t {
  public:
    explicit table_file_t(std::string path) : path_(std::move(path)) {}
    table_file_t(const table_file_t&) = delete;
    table_file_t& operator=(const table_file_t&) = delete;
    // Removes the file, if this object made it, unless it is kept.
    ~table_file_t();

    // Makes the file, readable and writable for its owner only; it must not exist. Errors: errno with the path.
    [[nodiscard]] errdesc_t* create();

    // Writes out what is buffered and closes the stream. Errors: the first fault of any write, with the path.
    [[nodiscard]] errdesc_t* finish();

    // Leaves the file where it is, for whoever looks for a fault.
    void keep() { created_ = false; }

    const std::string& path() const { return path_; }
    // The stream, until finish().
    std::FILE* stream() const { return stream_.get(); }

  private:
    static ssize_t write_some(void* self, const char* data, std::size_t size);

    std::string path_;
    unique_fd fd_;
    std::vector<char> buffer_;
    int fault_ = 0;  // errno of the first failed write
    bool created_ = false;
    file_ptr stream_;  // last: closing it writes through the members above
};

}  // namespace mirador
