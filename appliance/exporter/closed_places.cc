// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/closed_places.h"

#include <cerrno>

#include "lib/errdesc.h"
#include "lib/file_tree.h"
#include "lib/log.h"
#include "lib/tool_paths.h"

namespace mirador {
namespace {

constexpr mode_t owner_only = 0700;
constexpr mode_t parent_mode = 0755;

// The closed root as it was. Written before any thread runs.
struct stat _shadow_root {};

void log_errno(const std::string& path) {
    _errdesc_log(errdesc_set_str(errno, path), ERRDESC_WARNING);
}

}  // namespace

void close_shadow_tree(const std::string& root) {
    _shadow_root = {};
    struct stat st {};
    if (stat(root.c_str(), &st) != 0 || chmod(root.c_str(), st.st_mode & owner_only) != 0)
        log_errno(root);
    else
        _shadow_root = st;
}

void show_shadow_root(struct stat* st) {
    if (_shadow_root.st_ino != 0 && st->st_ino == _shadow_root.st_ino && st->st_dev == _shadow_root.st_dev)
        st->st_mode = _shadow_root.st_mode;
}

void check_users_shadow_tree(const std::string& root) {
    constexpr mode_t others = S_IXGRP | S_IXOTH;
    struct stat st {};
    if (stat(root.c_str(), &st) == 0 && (st.st_mode & others) != 0)
        ts_printf("WARNING: other users may enter %s and change what is exported\n", root.c_str());
}

void make_closed_cache() {
    const std::string& cache = tool_paths().cache_dir;
    const std::string parent = cache.substr(0, cache.rfind('/'));
    if (mkdirp(parent, parent_mode) != 0 || mkdirp(cache, owner_only) != 0 || chmod(cache.c_str(), owner_only) != 0)
        log_errno(cache);
}

}  // namespace mirador
