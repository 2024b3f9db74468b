// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/loopdev.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstring>

#include "appliance/lib/registry.h"
#include "lib/clock.h"
#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/file_io.h"
#include "lib/log.h"
#include "lib/tool_paths.h"

namespace mirador {
namespace {

constexpr unsigned loop_major = 7;
constexpr mode_t node_mode = S_IFBLK | 0600;

// Lost races for a number before the next attempt waits a second.
constexpr unsigned races_per_second = 32;
// Attempts, a second apart, to release a device that the kernel calls busy.
constexpr int release_attempts = 10;

struct binding_t {
    int fd;
    const std::string& path;
    bool readonly;
};

bool has_run_out(int number) {
    return number == ENOSPC || number == ENOMEM || number == ENFILE;
}

errdesc_t* get_free_number(const binding_t& binding, int* number) {
    const std::string& control = tool_paths().loop_control;
    const unique_fd fd(open(control.c_str(), O_RDWR | O_CLOEXEC));
    if (!fd)
        return errdesc_set_str(errno, control);
    *number = ioctl(fd.get(), LOOP_CTL_GET_FREE);
    if (*number >= 0)
        return nullptr;
    const int fault = errno;
    return errdesc_set_fmt(has_run_out(fault) ? EMFILE : fault, "Cannot get a free loop device for %s: %s",
                           binding.path.c_str(), errnum_text(fault).c_str());
}

// Opens the device's node and makes it first where it is missing.
unique_fd open_node(const std::string& loopdev, int number, int flags) {
    unique_fd fd(open(loopdev.c_str(), flags));
    if (fd || errno != ENOENT)
        return fd;
    const dev_t device = makedev(loop_major, static_cast<unsigned>(number));
    if (mknod(loopdev.c_str(), node_mode, device) == 0 || errno == EEXIST)
        fd.reset(open(loopdev.c_str(), flags));
    return fd;
}

// Whether another process has taken or removed the device in the meantime.
bool is_lost_race(int fault) {
    return fault == EBUSY || fault == ENXIO || fault == ENODEV;
}

// Binds the file to the device `number`; *bound stays false when another process was faster.
errdesc_t* bind_number(const binding_t& binding, int number, const std::string& loopdev, bool* bound) {
    const int flags = (binding.readonly ? O_RDONLY : O_RDWR) | O_CLOEXEC;
    const unique_fd node = open_node(loopdev, number, flags);
    loop_config config{};
    config.fd = static_cast<std::uint32_t>(binding.fd);
    config.info.lo_flags = binding.readonly ? LO_FLAGS_READ_ONLY : 0;
    cor_safe_strncpy(reinterpret_cast<char*>(config.info.lo_file_name), binding.path.c_str(), LO_NAME_SIZE);
    *bound = node && ioctl(node.get(), LOOP_CONFIGURE, &config) == 0;
    if (*bound || is_lost_race(errno))
        return nullptr;
    return errdesc_set_str(errno, loopdev);
}

errdesc_t* release_node(int fd, const std::string& loopdev) {
    for (int attempt = 1;; ++attempt) {
        if (ioctl(fd, LOOP_CLR_FD) == 0 || errno == ENXIO)
            return nullptr;
        if (errno != EBUSY || attempt == release_attempts)
            return errdesc_set_str(errno, loopdev);
        clock_sleep(1);
    }
}

}  // namespace

errdesc_t* vdsk_assign_next_loop_dev_fd(int fd, const std::string& path, bool readonly, int timeout_s,
                                        std::string* loopdev) {
    const binding_t binding{fd, path, readonly};
    const std::time_t deadline = clock_now() + timeout_s;
    for (unsigned attempt = 1;; ++attempt) {
        int number = -1;
        RETURN_IF_ERROR(get_free_number(binding, &number));
        const std::string candidate = cor_format("%s%d", tool_paths().loop_prefix.c_str(), number);
        bool bound = false;
        RETURN_IF_ERROR(bind_number(binding, number, candidate, &bound));
        if (bound) {
            *loopdev = candidate;
            return nullptr;
        }
        if (clock_now() >= deadline)
            return errdesc_set_fmt(ETIME, "Cannot get a free loop device for %s in %d seconds", path.c_str(),
                                   timeout_s);
        if (attempt % races_per_second == 0)
            clock_sleep(1);
    }
}

errdesc_t* vdsk_assign_next_loop_dev(const std::string& path, bool readonly, int timeout_s, std::string* loopdev) {
    const unique_fd fd(open(path.c_str(), (readonly ? O_RDONLY : O_RDWR) | O_NONBLOCK | O_CLOEXEC));
    if (!fd)
        return errdesc_set_str(errno, path);
    return vdsk_assign_next_loop_dev_fd(fd.get(), path, readonly, timeout_s, loopdev);
}

errdesc_t* vdsk_release_loop_dev(const std::string& loopdev) {
    cor_assert(loopdev.starts_with(tool_paths().loop_prefix));
    const unique_fd fd(open(loopdev.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd)
        return release_node(fd.get(), loopdev);
    return errno == ENXIO ? nullptr : errdesc_set_str(errno, loopdev);
}

errdesc_t* define_loop_dev(const std::string& path, std::string* loopdev) {
    const bool debug = get_reg_settings()->cbt_debug_enabled;
    if (debug)
        ts_printf("defining loop device for target: %s\n", path.c_str());
    RETURN_IF_ERROR(vdsk_assign_next_loop_dev(path, true, loopdev_timeout, loopdev));
    if (debug)
        ts_printf("defined loop device: %s\n", loopdev->c_str());
    return nullptr;
}

errdesc_t* release_loop_dev(const std::string& loopdev) {
    if (get_reg_settings()->cbt_debug_enabled)
        ts_printf("releasing loop device: %s\n", loopdev.c_str());
    return vdsk_release_loop_dev(loopdev);
}

}  // namespace mirador
