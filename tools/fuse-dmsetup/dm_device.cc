// SPDX-License-Identifier: Apache-2.0
#include "tools/fuse-dmsetup/dm_device.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <optional>
#include <string_view>

namespace mirador {
namespace {

constexpr unsigned long most_read_ahead = 128 * 1024;  // bytes

std::optional<unsigned> parse_number(std::string_view text) {
    unsigned number = 0;
    const auto [end, failed] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (failed != std::errc() || end != text.data() + text.size())
        return {};
    return number;
}

// The device number in a "major:minor", none in any other text.
std::optional<dev_t> parse_device_number(std::string_view text) {
    const std::size_t colon = text.find(':');
    if (colon == text.npos)
        return {};
    const auto major = parse_number(text.substr(0, colon));
    const auto minor = parse_number(text.substr(colon + 1));
    if (!major || !minor)
        return {};
    return makedev(*major, *minor);
}

// Opens a device by its number, through a node that exists only meanwhile.
int open_number(dev_t number) {
    char directory[] = "/run/fuse-dmsetup.XXXXXX";
    if (mkdtemp(directory) == nullptr)
        return -1;
    const std::string node = std::string(directory) + "/node";
    int fd = -1;
    if (mknod(node.c_str(), S_IFBLK | S_IRUSR, number) == 0)
        fd = open(node.c_str(), O_RDONLY | O_CLOEXEC);
    const int kept_errno = errno;
    unlink(node.c_str());
    rmdir(directory);
    errno = kept_errno;
    return fd;
}

}  // namespace

errdesc_t* dm_device_open(const std::string& name, dm_device_t* device) {
    const std::optional<dev_t> number = parse_device_number(name);
    unique_fd fd(number ? open_number(*number) : open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status = {};
    if (!fd || fstat(fd.get(), &status) != 0)
        return errdesc_set_str(errno, name);
    std::uint64_t bytes = 0;
    if (!S_ISBLK(status.st_mode))
        return errdesc_set_str(ENOTBLK, name);
    if (ioctl(fd.get(), BLKGETSIZE64, &bytes) != 0)
        return errdesc_set_str(errno, name);
    // The kernel reads ahead on the mapping's own file; the device's own read-ahead may be many times as large, and
    // would fetch what nobody asks for.
    ioctl(fd.get(), BLKRASET, most_read_ahead / sector_size);
    *device = {.name = name,
               .major = major(status.st_rdev),
               .minor = minor(status.st_rdev),
               .sectors = bytes / sector_size,
               .fd = std::move(fd),
               .table = nullptr};
    return nullptr;
}

}  // namespace mirador
