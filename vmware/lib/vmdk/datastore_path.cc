// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmdk/datastore_path.h"

#include <libgen.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "lib/cor_assert.h"
#include "lib/cor_string.h"

namespace mirador {
namespace {

bool is_directory(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// dirname and basename write into their argument, and nowhere else.
std::string directory_of(std::string path) {
    return dirname(path.data());  // NOLINT(concurrency-mt-unsafe)
}

std::string base_name_of(std::string path) {
    return basename(path.data());
}

}  // namespace

bool is_datastore_fs_path(const std::string& path) {
    return path.starts_with(datastore_fs_root) && path.substr(datastore_fs_root.size(), 1) == "/";
}

errdesc_t* remove_datastore_mount_point(const std::string& path, std::string_view* ds_name_path) {
    cor_assert_text(ds_name_path, "ds_name_path != ((void *)0)");
    *ds_name_path = {};
    for (const std::string& root : datastore_mount_points) {
        if (!path.starts_with(root))
            continue;
        std::string_view rest = std::string_view(path).substr(root.size());
        rest.remove_prefix(std::min(rest.find_first_not_of('/'), rest.size()));
        *ds_name_path = rest;
        return nullptr;
    }
    return errdesc_set_fmt(EINVAL, "Invalid datastore path %s", path.c_str());
}

std::string translate_to_datastore_fs_path(const std::string& path) {
    std::string_view rest;
    if (errdesc_t* e = remove_datastore_mount_point(path, &rest)) {
        _errdesc_log(e, ERRDESC_WARNING);
        return path;
    }
    return std::string(datastore_fs_root).append("/").append(rest);
}

std::string get_datastore_mount_point(const std::string& ds_name) {
    for (const std::string& root : datastore_mount_points) {
        const std::string candidate = std::string(root).append("/").append(ds_name);
        if (candidate.size() < path_size && is_directory(candidate))
            return root;
    }
    return std::string(datastore_fs_root);
}

errdesc_t* parse_datastore_path(const std::string& path, std::string* ds_name, std::string* dir, std::string* base) {
    cor_assert_text(ds_name, "ds_name != ((void *)0)");
    std::string_view rest;
    RETURN_IF_ERROR(remove_datastore_mount_point(path, &rest));
    const std::size_t slash = rest.find('/');
    const bool inside = slash != std::string_view::npos;
    const std::string file(inside ? rest.substr(slash + 1) : std::string_view());
    *ds_name = rest.substr(0, slash);
    if (dir)
        *dir = inside ? directory_of(file) : std::string();
    if (base)
        *base = inside ? base_name_of(file) : std::string();
    return nullptr;
}

errdesc_t* get_preferred_datastore_path(const std::string& path, std::string* preferred_path) {
    cor_assert_text(preferred_path, "preferred_path != ((void *)0)");
    if (!is_datastore_fs_path(path)) {
        *preferred_path = path;
        return nullptr;
    }
    std::string ds_name;
    std::string_view rest;
    RETURN_IF_ERROR(parse_datastore_path(path, &ds_name, nullptr, nullptr));
    RETURN_IF_ERROR(remove_datastore_mount_point(path, &rest));
    *preferred_path = get_datastore_mount_point(ds_name).append("/").append(rest);
    return nullptr;
}

}  // namespace mirador
