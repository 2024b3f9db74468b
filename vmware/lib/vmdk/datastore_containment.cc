// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmdk/datastore_containment.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string_view>

#include "lib/cor_string.h"
#include "vmware/lib/vmdk/datastore_path.h"

namespace mirador {
namespace {

namespace fs = std::filesystem;

// The path without symbolic links; nothing, and errno, when it leads nowhere.
std::optional<std::string> resolve(const std::string& path) {
    char resolved[PATH_MAX];
    if (!realpath(path.c_str(), resolved))
        return std::nullopt;
    return resolved;
}

// The part of `path` below `directory`; empty when it is not below it.
std::string_view below(std::string_view path, const std::string& directory) {
    const std::string prefix = directory + "/";
    return path.starts_with(prefix) ? path.substr(prefix.size()) : std::string_view();
}

// Whether one of the links in the mount root `root` leads to a directory with `resolved` below it.
bool below_linked_datastore(const std::string& resolved, const std::string& root) {
    std::error_code failed;
    for (fs::directory_iterator entry(root, failed), end; !failed && entry != end; entry.increment(failed)) {
        std::error_code unknown;
        if (!entry->is_symlink(unknown))
            continue;
        const auto datastore = resolve(entry->path().string());
        if (datastore && !below(resolved, *datastore).empty())
            return true;
    }
    return false;
}

// A resolved path has no links left: below a root that is resolved as well its first component is a datastore's own
// directory. Only datastores that are links to elsewhere have to be looked for.
bool resolved_on_datastore(const std::string& resolved) {
    const auto& roots = datastore_mount_points;
    const auto directly = [&](const std::string& root) {
        const auto resolved_root = resolve(root);
        return resolved_root && below(resolved, *resolved_root).find('/') != std::string_view::npos;
    };
    return std::any_of(roots.begin(), roots.end(), directly) ||
           std::any_of(roots.begin(), roots.end(),
                       [&](const std::string& root) { return below_linked_datastore(resolved, root); });
}

}  // namespace

bool is_on_datastore(const std::string& path) {
    const auto& roots = datastore_mount_points;
    if (std::any_of(roots.begin(), roots.end(), [&](const std::string& root) { return path.starts_with(root + "/"); }))
        return true;
    const auto resolved = resolve(path);
    return resolved && resolved_on_datastore(*resolved);
}

errdesc_t* datastore_check_contained(const std::string& descriptor, const std::string& path) {
    return is_on_datastore(descriptor) ? datastore_check_file(path) : nullptr;
}

errdesc_t* datastore_check_file(const std::string& path) {
    const auto resolved = resolve(path);
    if (!resolved)
        return errdesc_set_str(errno, path);
    if (!resolved_on_datastore(*resolved))
        return errdesc_set_fmt(EINVAL, "Refused, outside every datastore: %s", path.c_str());
    struct stat st {};
    if (lstat(resolved->c_str(), &st) != 0)
        return errdesc_set_str(errno, path);
    if (!S_ISREG(st.st_mode))
        return errdesc_set_fmt(EINVAL, "Refused, not a regular file: %s", path.c_str());
    return nullptr;
}

errdesc_t* datastore_check_opened(const std::string& descriptor, int fd, const std::string& path) {
    return is_on_datastore(descriptor) ? datastore_check_opened(fd, path) : nullptr;
}

errdesc_t* datastore_check_opened(int fd, const std::string& path) {
    std::array<char, path_size> resolved{};
    const std::string link = cor_format("/proc/self/fd/%d", fd);
    if (readlink(link.c_str(), resolved.data(), resolved.size() - 1) < 0)
        return errdesc_set_str(errno, path);
    return datastore_check_file(resolved.data());
}

}  // namespace mirador
