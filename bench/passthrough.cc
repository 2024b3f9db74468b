// SPDX-License-Identifier: Apache-2.0
// passthrough DIRECTORY MOUNT-POINT [FUSE OPTION...]: shows a directory's files read-only through FUSE and does nothing
// else on the way. What it costs is what FUSE itself costs, so it is the measure for the daemon's own share.
#define FUSE_USE_VERSION 26
#include <dirent.h>
#include <fcntl.h>
#include <fuse.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <iterator>

namespace {

int _root = -1;  // the directory; set before FUSE starts its threads

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
    return done < 0 ? -errno : static_cast<int>(done);
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
    fuse_operations oper{};
    oper.getattr = pass_getattr;
    oper.open = pass_open;
    oper.read = pass_read;
    oper.release = pass_release;
    oper.readdir = pass_readdir;
    argv[1] = argv[0];
    return fuse_main(argc - 1, argv + 1, &oper, nullptr);
}
