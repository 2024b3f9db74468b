// SPDX-License-Identifier: Apache-2.0
// bench-calls open FILE COUNT      opens and closes FILE, COUNT times
// bench-calls getattr DIRECTORY    asks for the attributes of each entry, by names read beforehand
// bench-calls readdir DIRECTORY    lists it
//
// Prints how many operations (of readdir: entries) were done and in how many seconds. Exit status 1 when one fails.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

// The kernel keeps names and attributes for a second after it was told them; asking within it would measure the kernel.
constexpr unsigned cached_seconds = 2;

[[noreturn]] void fail(const std::string& path) {
    std::perror(path.c_str());
    std::exit(1);
}

std::vector<std::string> list(const std::string& directory) {
    std::vector<std::string> names;
    DIR* dir = opendir(directory.c_str());
    if (dir == nullptr)
        fail(directory);
    while (const dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.')
            names.push_back(directory + "/" + entry->d_name);
    }
    closedir(dir);
    return names;
}

void open_and_close(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || close(fd) != 0)
        fail(path);
}

void get_attributes(const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0)
        fail(path);
}

template <typename work_t>
void measure(const work_t& work) {
    const auto begin = std::chrono::steady_clock::now();
    const std::size_t count = work();
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
    std::printf("%zu %.6f\n", count, took.count());
}

void measure_open(const std::string& path, std::size_t count) {
    open_and_close(path);
    measure([&] {
        for (std::size_t i = 0; i < count; ++i)
            open_and_close(path);
        return count;
    });
}

void measure_getattr(const std::string& directory) {
    const std::vector<std::string> paths = list(directory);
    sleep(cached_seconds);
    measure([&] {
        for (const std::string& path : paths)
            get_attributes(path);
        return paths.size();
    });
}

}  // namespace

int main(int argc, char** argv) {
    const std::string_view kind = argc > 2 ? argv[1] : "";
    if (kind == "open" && argc == 4)
        measure_open(argv[2], std::strtoul(argv[3], nullptr, 10));
    else if (kind == "getattr" && argc == 3)
        measure_getattr(argv[2]);
    else if (kind == "readdir" && argc == 3)
        measure([&] { return list(argv[2]).size(); });
    else {
        std::fprintf(stderr, "usage: %s open FILE COUNT | getattr DIRECTORY | readdir DIRECTORY\n", argv[0]);
        return 1;
    }
    return 0;
}
