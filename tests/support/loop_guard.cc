// SPDX-License-Identifier: Apache-2.0
#include "tests/support/loop_guard.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "lib/cor_string.h"
#include "lib/file_io.h"
#include "tests/lib/temp_dir.h"

namespace mirador {
namespace {

constexpr const char* control = "/dev/loop-control";

std::string text_of(const std::string& path) {
    std::string text = read_file(path);
    while (text.ends_with('\n'))
        text.pop_back();
    return text;
}

// The first number that the kernel has no device for.
int first_unused_number() {
    int number = 0;
    while (std::filesystem::exists(cor_format("/sys/block/loop%d", number)))
        ++number;
    return number;
}

}  // namespace

loop_guard_t::loop_guard_t() : first_new_(first_unused_number()) {}

loop_guard_t::~loop_guard_t() {
    const unique_fd fd(open(control, O_RDWR | O_CLOEXEC));
    for (int number = first_unused_number() - 1; number >= first_new_; --number)
        ioctl(fd.get(), LOOP_CTL_REMOVE, number);
}

bool loop_guard_t::available() {
    return geteuid() == 0 && access(control, R_OK | W_OK) == 0;
}

std::string loop_guard_t::backing_file(const std::string& loopdev) {
    const std::size_t digits = loopdev.find_last_not_of("0123456789") + 1;
    return text_of("/sys/block/loop" + loopdev.substr(digits) + "/loop/backing_file");
}

std::vector<std::string> loop_guard_t::bound_below(const std::string& directory) {
    std::vector<std::string> bound;
    for (int number = 0; number < first_unused_number(); ++number) {
        const std::string loopdev = cor_format("/dev/loop%d", number);
        if (backing_file(loopdev).starts_with(directory + "/"))
            bound.push_back(loopdev);
    }
    return bound;
}

std::vector<std::string> loop_guard_t::left_below(const std::string& directory) {
    constexpr int looks = 100;
    std::vector<std::string> bound = bound_below(directory);
    for (int look = 1; look < looks && !bound.empty(); ++look) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        bound = bound_below(directory);
    }
    return bound;
}

}  // namespace mirador
