// SPDX-License-Identifier: Apache-2.0
#include "tools/mirador-restore/new_image.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace mirador {

new_image_t::~new_image_t() {
    if (!aside_.empty())
        unlink(aside_.c_str());
}

errdesc_t* new_image_t::check_target() const {
    struct stat st {};
    if (lstat(path_.c_str(), &st) != 0)
        return errno == ENOENT ? nullptr : errdesc_set_str(errno, path_);
    if (!replaces_)
        return errdesc_set_str(EEXIST, path_);
    return S_ISREG(st.st_mode) ? nullptr : errdesc_set_fmt(EINVAL, "not a regular file: %s", path_.c_str());
}

errdesc_t* new_image_t::create(std::int64_t size) {
    RETURN_IF_ERROR(check_target());
    std::string name = path_ + ".XXXXXX";
    fd_.reset(mkostemp(name.data(), O_CLOEXEC));
    if (!fd_)
        return errdesc_set_str(errno, path_);
    aside_ = name;
    return ftruncate(fd_.get(), size) == 0 ? nullptr : errdesc_set_str(errno, path_);
}

// Not over a file that came up meanwhile, unless that is wanted. Where the file system has no such renaming, a link
// does as well.
errdesc_t* new_image_t::rename() const {
    const char* const from = aside_.c_str();
    const char* const to = path_.c_str();
    int status = renameat2(AT_FDCWD, from, AT_FDCWD, to, replaces_ ? 0 : RENAME_NOREPLACE);
    if (status != 0 && !replaces_ && (errno == EINVAL || errno == ENOSYS))
        status = link(from, to) == 0 ? unlink(from) : -1;
    return status == 0 ? nullptr : errdesc_set_str(errno, path_);
}

errdesc_t* new_image_t::sync_directory() const {
    const std::size_t slash = path_.rfind('/');
    const std::string name = slash == std::string::npos ? "." : path_.substr(0, slash + 1);
    const unique_fd fd(open(name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return fd && fsync(fd.get()) == 0 ? nullptr : errdesc_set_str(errno, name);
}

errdesc_t* new_image_t::publish() {
    if (fsync(fd_.get()) != 0)
        return errdesc_set_str(errno, path_);
    RETURN_IF_ERROR(rename());
    aside_.clear();
    return sync_directory();
}

}  // namespace mirador
