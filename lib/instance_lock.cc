// SPDX-License-Identifier: Apache-2.0
#include "lib/instance_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>

#include "lib/cor_string.h"
#include "lib/file_io.h"
#include "lib/tool_paths.h"

namespace mirador {
namespace {

// Whether a line of a process's status, "State:\tZ (zombie)", a core that is written (which waits for all threads) or a
// mask of signals that wait for it, tells its end.
bool tells_end(std::string_view line) {
    constexpr std::string_view state = "State:\t";
    constexpr int hexadecimal = 16;
    if (line == "CoreDumping:\t1")
        return true;
    if (line.starts_with(state))
        return line.substr(state.size()).starts_with('Z') || line.substr(state.size()).starts_with('X');
    if (!line.starts_with("SigPnd:\t") && !line.starts_with("ShdPnd:\t"))
        return false;
    const std::string mask(line.substr(line.find('\t') + 1));
    return (std::strtoull(mask.c_str(), nullptr, hexadecimal) & (std::uint64_t{1} << (SIGKILL - 1))) != 0;
}

// For those who find the lock taken. They do without it where it cannot be written.
void note_holder(int fd) {
    const std::string text = cor_format("%d\n", static_cast<int>(getpid()));
    std::size_t done = 0;
    const errdesc_keeper_t keep;
    if (ftruncate(fd, 0) == 0)
        (void)cor_pwrite(fd, text.data(), text.size(), 0, &done);
}

}  // namespace

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
    note_holder(fd.get());
    (void)fd.release();  // stays open, and locked, until the process ends
    return nullptr;
}

bool instance_lock_holder_is_dying() {
    std::ifstream file(tool_paths().lock_file);
    int pid = 0;
    if (!(file >> pid) || pid <= 0)
        return false;
    std::ifstream status(cor_format("/proc/%d/status", pid));
    for (std::string line; std::getline(status, line);)
        if (tells_end(line))
            return true;
    return false;
}

}  // namespace mirador
