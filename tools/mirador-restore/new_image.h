// SPDX-License-Identifier: Apache-2.0
// A file that is written aside and appears under its name whole or not at all.
#pragma once

#include <cstdint>
#include <string>

#include "lib/errdesc.h"
#include "lib/file_io.h"

namespace mirador {

class new_image_t {
  public:
    // `replaces`: a regular file of that name is replaced; otherwise there must be nothing of that name.
    new_image_t(std::string path, bool replaces) : path_(std::move(path)), replaces_(replaces) {}
    new_image_t(const new_image_t&) = delete;
    new_image_t& operator=(const new_image_t&) = delete;
    // Removes what was written, unless it has got its name.
    ~new_image_t();

    // Makes the file, "<path>.<six characters>" for the owner only, of `size` bytes that are a hole. Errors: errno with
    // the path; EEXIST when something of that name is there; EINVAL when that is no regular file.
    [[nodiscard]] errdesc_t* create(std::int64_t size);

    // Gives the file its name when all of it is on the disk. Errors: errno with the path; EEXIST when something of that
    // name has come up meanwhile; errno with the directory when the name, which the file then has, may not last.
    [[nodiscard]] errdesc_t* publish();

    int fd() const { return fd_.get(); }
    const std::string& path() const { return path_; }

  private:
    errdesc_t* check_target() const;
    errdesc_t* rename() const;
    errdesc_t* sync_directory() const;

    std::string path_;
    bool replaces_;
    std::string aside_;  // while it has not got its name
    unique_fd fd_;
};

}  // namespace mirador
