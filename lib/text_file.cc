// SPDX-License-Identifier: Apache-2.0
#include "lib/text_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "lib/file_io.h"
#include "lib/file_tree.h"

namespace mirador {
namespace {

constexpr mode_t directory_mode = 0755;

errdesc_t* refuse(const std::string& path, const char* kind, const char* fault) {
    return errdesc_set_fmt(EINVAL, "%s refused, %s: %s", kind, fault, path.c_str());
}

errdesc_t* write_aside(const unique_fd& fd, const std::string& path, const std::string& text, mode_t mode,
                       const struct stat& original) {
    std::size_t done = 0;
    if (errdesc_t* e = cor_pwrite(fd.get(), text.data(), text.size(), 0, &done))
        return errdesc_set_str(e->number, path);
    const timespec times[] = {original.st_atim, original.st_mtim};
    if (fchmod(fd.get(), mode) != 0 || futimens(fd.get(), times) != 0)
        return errdesc_set_str(errno, path);
    return nullptr;
}

}  // namespace

// Looks before it opens, as some devices act when they are opened; a file swapped in between is looked at again.
errdesc_t* read_text_file(const std::string& path, const char* kind, std::size_t max_size, std::string* text,
                          const opened_file_check_t& check) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0)
        return errdesc_set_str(errno, path);
    if (!S_ISREG(st.st_mode))
        return refuse(path, kind, "not a regular file");
    const unique_fd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!fd || fstat(fd.get(), &st) != 0)
        return errdesc_set_str(errno, path);
    if (!S_ISREG(st.st_mode))
        return refuse(path, kind, "not a regular file");
    if (check)
        RETURN_IF_ERROR(check(fd.get()));
    if (static_cast<std::uint64_t>(st.st_size) > max_size)
        return refuse(path, kind, "too long");
    text->resize(static_cast<std::size_t>(st.st_size));
    std::size_t done = 0;
    if (errdesc_t* e = cor_pread(fd.get(), text->data(), text->size(), 0, &done))
        return errdesc_set_str(e->number, path);
    text->resize(done);
    return nullptr;
}

errdesc_t* replace_text_file(const std::string& path, const std::string& text, mode_t mode,
                             const struct stat& original) {
    const std::string directory = std::filesystem::path(path).parent_path();
    if (!directory.empty() && mkdirp(directory, directory_mode) != 0)
        return errdesc_set_fmt(errno, "Cannot make directory %s", directory.c_str());
    std::string aside = path + ".XXXXXX";
    const unique_fd fd(mkostemp(aside.data(), O_CLOEXEC));
    if (!fd)
        return errdesc_set_str(errno, path);
    errdesc_t* e = write_aside(fd, path, text, mode, original);
    if (e == nullptr && std::rename(aside.c_str(), path.c_str()) != 0)
        e = errdesc_set_str(errno, path);
    if (e != nullptr)
        (void)unlink(aside.c_str());
    return e;
}

}  // namespace mirador
