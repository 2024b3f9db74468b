// SPDX-License-Identifier: Apache-2.0
// Stands in for dmsetup where the kernel has no device-mapper: "/dev/mapper/NAME" becomes a read-only file.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "tools/fuse-dmsetup/command_line.h"

int main(int argc, char** argv) {
    // A starter may close the standard streams; nothing else must take their numbers.
    int fd;
    do
        fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO);
    close(fd);

    mirador::request_t request;
    const auto words = std::span<const char* const>(argv, static_cast<std::size_t>(argc)).subspan(1);
    if (const mirador::errdesc_t* e = mirador::parse_command_line(words, STDIN_FILENO, &request)) {
        std::fprintf(stderr, "%s\n", e->number == EINVAL ? mirador::command_usage : e->string);
        return EXIT_FAILURE;
    }
    return mirador::run_command(request);
}
