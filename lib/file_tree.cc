// SPDX-License-Identifier: Apache-2.0
#include "lib/file_tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>
#include <vector>

#include "lib/cor_string.h"
#include "lib/file_io.h"
#include "lib/log.h"

namespace mirador {
namespace {

// The mode is set behind the file-creation mask's back: to take the mask off would take it off all that other threads
// create meanwhile, and off the programs that they start.
int mkdir_unless_present(const std::string& path, mode_t mode) {
    if (mkdir(path.c_str(), mode) != 0)
        return errno == EEXIST ? 0 : -1;
    return fchmodat(AT_FDCWD, path.c_str(), mode, AT_SYMLINK_NOFOLLOW);
}

struct tree_entry_t {
    std::string path;
    bool is_dir;
};

bool is_left_alone(std::string_view name) {
    return name == "." || name.starts_with("..");
}

// Whether an entry is a directory itself; a link to one is not.
bool is_directory(const dirent& entry, const std::string& path) {
    if (entry.d_type != DT_UNKNOWN)
        return entry.d_type == DT_DIR;
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The entries to remove. The directory is closed again before the first is touched: a deep tree must not need a
// descriptor for each level.
errdesc_t* list_tree_dir(DIR* dir, const std::string& path, std::vector<tree_entry_t>* entries) {
    for (;;) {
        errno = 0;
        const dirent* entry = readdir(dir);
        if (entry == nullptr)
            return errno == 0 ? nullptr : errdesc_set_str(errno, path);
        if (is_left_alone(entry->d_name))
            continue;
        std::string entry_path = cor_format_path("%s/%s", path.c_str(), entry->d_name);
        const bool is_dir = is_directory(*entry, entry_path);
        entries->push_back({std::move(entry_path), is_dir});
    }
}

// Opens and lists `path`; *missing when there is none. `flags` are added to open's.
errdesc_t* read_tree_dir(const std::string& path, int flags, std::vector<tree_entry_t>* entries, bool* missing) {
    unique_fd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags));
    *missing = !fd && errno == ENOENT;
    if (*missing)
        return nullptr;
    DIR* const dir = fd ? fdopendir(fd.get()) : nullptr;
    if (dir == nullptr)
        return errdesc_set_str(errno, path);
    (void)fd.release();
    errdesc_t* e = list_tree_dir(dir, path, entries);
    if (closedir(dir) != 0)
        ts_printf("rmdirr(%s): closedir failed: %s\n", path.c_str(), errnum_text(errno).c_str());
    return e;
}

errdesc_t* remove_tree(const std::string& path, int flags) {
    std::vector<tree_entry_t> entries;
    bool missing = false;
    RETURN_IF_ERROR(read_tree_dir(path, flags, &entries, &missing));
    if (missing)
        return nullptr;
    for (const tree_entry_t& entry : entries) {
        if (entry.is_dir)
            RETURN_IF_ERROR(remove_tree(entry.path, O_NOFOLLOW));
        else if (unlink(entry.path.c_str()) != 0)
            return errdesc_set_fmt(errno, "rmdirr(%s): unlink(%s) failed: %s", path.c_str(), entry.path.c_str(),
                                   errnum_text(errno).c_str());
    }
    if (rmdir(path.c_str()) != 0)
        ts_printf("rmdirr(%s): rmdir failed: %s\n", path.c_str(), errnum_text(errno).c_str());
    return nullptr;
}

}  // namespace

int mkdirp(const std::string& path, mode_t mode) {
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        if (mkdir_unless_present(path.substr(0, slash), mode) != 0)
            return -1;
    }
    return mkdir_unless_present(path, mode);
}

errdesc_t* rmdirr(const std::string& path) {
    errdesc_t* e = remove_tree(path, 0);
    if (e != nullptr)
        _errdesc_log(e, ERRDESC_ERROR);
    return e;
}

}  // namespace mirador
