// SPDX-License-Identifier: Apache-2.0
#include "lib/instance_lock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>

#include "lib/file_io.h"
#include "lib/tool_paths.h"

namespace mirador {

errdesc_t* instance_lock_take() {
    constexpr mode_t owner_only = 0600;
    const std::string& path = tool_paths().lock_file;
    unique_fd fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, owner_only));
    if (!fd)
        return errdesc_set_str(errno, path);
    if (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK)
            return errdesc_set_fmt(EBUSY, "already running");
        return errdesc_set_str(errno, path);
    }
    (void)fd.release();  // stays open, and locked, until the process ends
    return nullptr;
}

}  // namespace mirador
