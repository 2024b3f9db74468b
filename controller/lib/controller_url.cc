// SPDX-License-Identifier: Apache-2.0
#include "controller/lib/controller_url.h"

#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <sstream>

#include "lib/cor_string.h"
#include "lib/errdesc.h"
#include "lib/file_io.h"
#include "lib/spawn.h"
#include "lib/thread_annotations.h"
#include "lib/tool_paths.h"

namespace mirador {
namespace {

constexpr const char* default_url = "https://localhost:443";
constexpr std::size_t max_output = 1024;

struct base_url_t {
    mutex_t mutex;
    std::string url GUARDED_BY(mutex);  // empty until it is found
};

base_url_t& base_url() {
    static base_url_t base;
    return base;
}

// Runs the branding script to its end. *output becomes the read end of its standard output.
errdesc_t* run_brand_reader(unique_fd* output) {
    int fd = -1;
    pid_t pid = -1;
    RETURN_IF_ERROR(spawn({tool_paths().brand_reader, "controller.port", "controller.use_https"}, SPAWN_PIPE_FROM_CHILD,
                          &fd, nullptr, &pid, 0));
    output->reset(fd);
    return spawn_wait(pid, 0, "/branding/BrandReader.py", spawn_tool_timeout);
}

// False when reading fails. The script has ended: what it wrote lies in the pipe.
bool read_output(const unique_fd& fd, std::string* text) {
    std::array<char, max_output> buf{};
    ssize_t length = 0;
    do
        length = read(fd.get(), buf.data(), buf.size());
    while (length < 0 && errno == EINTR);
    if (length < 0)
        return false;
    text->assign(buf.data(), static_cast<std::size_t>(length));
    return true;
}

// The URL that the script's output stands for; empty when it stands for none.
std::string parse_output(const std::string& text) {
    std::istringstream numbers(text);
    int port = 0;
    int use_https = 0;
    if (!(numbers >> port >> use_https)) {
        std::fprintf(stderr, "Error reading from BrandReader\n");
        return {};
    }
    const char* const protocol = use_https != 0 ? "https" : "http";
    std::printf("Port: %d, protocol: %s\n", port, protocol);
    return cor_format("%s://localhost:%d", protocol, port);
}

}  // namespace

// The path that leaves the mutex locked is what the analysis cannot follow.
std::string controller_get_url() NO_THREAD_SAFETY_ANALYSIS {
    base_url_t& base = base_url();
    base.mutex.lock();
    if (base.url.empty()) {
        unique_fd output;
        if (errdesc_t* e = run_brand_reader(&output)) {
            _errdesc_print(e, ERRDESC_ERROR);
            return default_url;
        }
        std::string text;
        if (read_output(output, &text))
            base.url = parse_output(text);
    }
    std::string url = base.url.empty() ? default_url : base.url;
    base.mutex.unlock();
    return url;
}

}  // namespace mirador
