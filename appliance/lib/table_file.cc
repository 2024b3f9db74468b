// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/table_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "lib/cor_assert.h"

namespace mirador {
namespace {

constexpr std::size_t buffer_size = std::size_t{1} << 20;
constexpr mode_t table_mode = 0600;

}  // namespace

table_file_t::~table_file_t() {
    stream_.reset();
    if (created_)
        unlink(path_.c_str());
}

errdesc_t* table_file_t::create() {
    fd_.reset(open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, table_mode));
    if (!fd_)
        return errdesc_set_str(errno, path_);
    created_ = true;
    cookie_io_functions_t functions{};
    functions.write = write_some;
    stream_.reset(fopencookie(this, "w", functions));
    cor_assert(stream_);
    buffer_.resize(buffer_size);
    cor_assert(std::setvbuf(stream_.get(), buffer_.data(), _IOFBF, buffer_.size()) == 0);
    return nullptr;
}

ssize_t table_file_t::write_some(void* self, const char* data, std::size_t size) {
    auto* table = static_cast<table_file_t*>(self);
    for (std::size_t done = 0; done < size && table->fault_ == 0;) {
        const ssize_t written = write(table->fd_.get(), data + done, size - done);
        if (written >= 0)
            done += static_cast<std::size_t>(written);
        else if (errno != EINTR)
            table->fault_ = errno;
    }
    return static_cast<ssize_t>(size);
}

errdesc_t* table_file_t::finish() {
    stream_.reset();
    fd_.reset();
    return fault_ == 0 ? nullptr : errdesc_set_str(fault_, path_);
}

}  // namespace mirador
