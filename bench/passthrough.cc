// SPDX-License-Identifier: Apache-2.0
// passthrough DIRECTORY MOUNT-POINT [FUSE OPTION...]: shows a directory's files read-only through FUSE and does nothing
// else on the way. What it costs is what FUSE itself costs, so it is the measure for the daemon's own share.
//
// With PASSTHROUGH_RATE in the environment all reads together get so many bytes a second, as from a datastore behind a
// line.
#define FUSE_USE_VERSION 26
#include <dirent.h>
#include <fcntl.h>
#include <fuse.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

namespace {

// Set before FUSE starts its threads.
int _root = -1;    // the directory
double _rate = 0;  // bytes a second; 0: without limit

// Waits until the line has carried `size` bytes more.
void carry(ssize_t size) {
    using std::chrono::steady_clock;
    static std::mutex mutex;
    static steady_clock::time_point busy_until;
    if (_rate <= 0 || size <= 0)
        return;
    const auto takes = std::chrono::duration_cast<steady_clock::duration>(
        std::chrono::duration<double>(static_cast<double>(size) / _rate));
    steady_clock::time_point end;
    {
        const std::scoped_lock lock(mutex);
        end = busy_until = std::max(busy_until, steady_clock::now()) + takes;
    }
    std::this_thread::sleep_until(end);
}

const char* relative(const char* path) {
    return path[1] == '\0' ? "." : path + 1;
}

int pass_getattr(const char* path, struct stat* st) {
    return fstatat(_root, relative(path), st, AT_SYMLINK_NOFOLLOW) == 0 ? 0 : -errno;
}

int pass_open(const char* path, fuse_file_info* fi) {
    const int fd = openat(_root, relative(path), O_RDONLY | O_CLOEXEC);
    fi->fh = static_cast<std::uint64_t>(fd);
    return fd < 0 ? -errno : 0;
}

int pass_read(const char*, char* buf, std::size_t size, off_t offset, fuse_file_info* fi) {
    const ssize_t done = pread(static_cast<int>(fi->fh), buf, size, offset);
    if (done < 0)
        return -errno;
    carry(done);
    return static_cast<int>(done);
}

int pass_release(const char*, fuse_file_info* fi) {
    return close(static_cast<int>(fi->fh)) == 0 ? 0 : -errno;
}

int pass_readdir(const char* path, void* buf, fuse_fill_dir_t filler, off_t, fuse_file_info*) {
    const int fd = openat(_root, relative(path), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* dir = fd < 0 ? nullptr : fdopendir(fd);
    if (dir == nullptr)
        return -errno;
    while (const dirent* entry = readdir(dir)) {
        struct stat st {};
        if (fstatat(fd, entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && filler(buf, entry->d_name, &st, 0) != 0)
            break;
    }
    return closedir(dir) == 0 ? 0 : -errno;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3 || (_root = open(argv[1], O_RDONLY | O_DIRECTORY | O_CLOEXEC)) < 0) {
        std::fprintf(stderr, "usage: %s DIRECTORY MOUNT-POINT [FUSE OPTION...]\n", argv[0]);
        return 1;
    }
    if (const char* rate = std::getenv("PASSTHROUGH_RATE"))
        _rate = std::atof(rate);
    fuse_operations oper{};
    oper.getattr = pass_getattr;
    oper.open = pass_open;
    oper.read = pass_read;
    oper.release = pass_release;
    oper.readdir = pass_readdir;
    argv[1] = argv[0];
    return fuse_main(argc - 1, argv + 1, &oper, nullptr);
}
