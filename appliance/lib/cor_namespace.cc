// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/cor_namespace.h"

#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string_view>

#include "appliance/lib/cns_header.h"
#include "lib/cor_assert.h"
#include "lib/file_tree.h"
#include "lib/log.h"
#include "lib/tmpfs.h"

namespace mirador {
namespace {

constexpr mode_t file_type_mask = 0xF000;
constexpr mode_t permission_mask = 0xFFF;
constexpr int sector_shift = 9;
constexpr std::int64_t sector = 512;
constexpr mode_t lock_mode = 0755;

std::string translate(const std::string& root, const std::string& path) {
    const char* below = path == "/" ? "." : path.c_str();
    if (*below == '/')
        below++;
    return cor_format_path("%s/%s", root.c_str(), below);
}

char* fill(cns_pbuf_t* pbuf, const std::string& translated) {
    cor_assert(pbuf != nullptr);
    cor_safe_strncpy(pbuf->path_buf, translated.c_str(), sizeof pbuf->path_buf);
    return pbuf->path_buf;
}

errdesc_t* refuse(errnum_t number, const char* fault, const std::string& path) {
    return errdesc_set_fmt(number, "Namespace path refused, %s: %s", fault, path.c_str());
}

// Whether a path stays below the root and names nothing internal.
errdesc_t* check_components(const std::string& path) {
    std::string_view rest = path;
    for (;;) {
        const std::string_view component = rest.substr(0, rest.find('/'));
        if (component == "..")
            return refuse(EINVAL, "it leads upwards", path);
        if (component.starts_with(cns_internal_prefix))
            return refuse(EINVAL, "it has an internal name", path);
        if (component.size() == rest.size())
            return nullptr;
        rest.remove_prefix(component.size() + 1);
    }
}

std::string lock_of(const std::string& place) {
    return cor_format_path("%s/%s%s", place.c_str(), cns_internal_prefix.data(), ".lck");
}

bool is_top(const std::string& path) {
    return path == "/";
}

errdesc_t* prepare_root(const cns_state_t& ns) {
    if ((ns.options & CNS_OPT_USE_DIR) == 0)
        return tmpfs_create(ns.root, ns.mount_options);
    const std::string inside = cor_format_path("%s/.", ns.root.c_str());
    const int wanted = R_OK | X_OK | ((ns.options & CNS_OPT_WRITABLE) != 0 ? W_OK : 0);
    return access(inside.c_str(), wanted) == 0 ? nullptr : errdesc_set_str(errno, inside);
}

struct stat node_stat(const cns_handle_t& ns, const cns_node_t& node) {
    const std::int64_t block = ns.fs_sectors_per_block * sector;
    struct stat st {};
    st.st_nlink = 1;
    st.st_uid = ns.owner_uid;
    st.st_gid = ns.owner_gid;
    st.st_size = node.size;
    st.st_blocks = (node.size + block) / block;  // one more than whole blocks: the count of an empty node is 1
    st.st_mode = (node.file_type & file_type_mask) | (node.permissions & permission_mask);
    st.st_atim.tv_sec = node.time;
    st.st_mtim.tv_sec = node.time;
    st.st_ctim.tv_sec = node.time;
    return st;
}

cns_attrs_t node_attrs(const cns_handle_t& ns, const cns_node_t& node) {
    cns_attrs_t attrs{};
    attrs.magic = cns_attrs_t::magic_value;
    attrs.version = cns_attrs_t::version_value;
    attrs.app_hdr_type = node.app_hdr_type;
    attrs.app_hdr_size = static_cast<std::uint32_t>(node.app_hdr_size);
    attrs.owner = node.owner;
    attrs.generation = node.generation;
    attrs.statb = cor_statb_from_stat(node_stat(ns, node));
    return attrs;
}

}  // namespace

void _cns_check_handle(const cns_handle_t* ns) {
    cor_assert(ns != nullptr);
    cor_assert(ns->magic == cns_state_t::magic_value);
    cor_assert(ns->version == cns_state_t::version_value);
}

errdesc_t* _cns_place(const cns_handle_t* ns, const std::string& path, std::string* place) {
    _cns_check_handle(ns);
    RETURN_IF_ERROR(check_components(path));
    *place = translate(ns->root, path);
    return nullptr;
}

errdesc_t* cns_create(const std::string& root, const std::string& symlink_root,
                      const std::optional<std::string>& mount_options, int options, uid_t owner_uid, gid_t owner_gid,
                      std::unique_ptr<cns_handle_t>* handle) {
    cor_assert(handle != nullptr && *handle == nullptr);
    auto ns = std::make_unique<cns_state_t>();
    ns->options = options;
    ns->root = root;
    ns->symlink_root = symlink_root;
    ns->mount_options = mount_options;
    ns->owner_uid = owner_uid;
    ns->owner_gid = owner_gid;
    RETURN_IF_ERROR(prepare_root(*ns));

    struct statvfs fs {};
    cor_assert(statvfs(root.c_str(), &fs) == 0);
    ns->fs_sectors_per_block = static_cast<int>(fs.f_bsize >> sector_shift);
    cor_assert(ns->fs_sectors_per_block > 0);
    if ((options & CNS_OPT_USE_DIR) != 0)
        _cns_init_fs_blocks_used(ns.get());
    *handle = std::move(ns);
    return nullptr;
}

errdesc_t* cns_destroy(std::unique_ptr<cns_handle_t>* handle) {
    cor_assert(handle != nullptr);
    _cns_check_handle(handle->get());
    errdesc_t* e = ((*handle)->options & CNS_OPT_USE_DIR) == 0 ? tmpfs_remove((*handle)->root) : nullptr;
    handle->reset();
    return e;
}

errdesc_t* cns_check_path(const cns_handle_t* ns, const std::string& path) {
    _cns_check_handle(ns);
    RETURN_IF_ERROR(check_components(path));
    // A header's temporary name, or a lock's, stands behind the path.
    if (ns->root.size() + path.size() + NAME_MAX >= path_size)
        return refuse(ENAMETOOLONG, "it is too long", path);
    return nullptr;
}

char* cns_translate_path(const cns_handle_t* ns, const std::string& path, cns_pbuf_t* pbuf) {
    _cns_check_handle(ns);
    return fill(pbuf, translate(ns->root, path));
}

char* cns_translate_symlink_path(const cns_handle_t* ns, const std::string& path, cns_pbuf_t* pbuf) {
    _cns_check_handle(ns);
    return fill(pbuf, translate(ns->symlink_root, path));
}

errdesc_t* cns_create_node(cns_handle_t* ns, const std::string& path, const cns_node_t& node) {
    cor_assert(node.app_hdr_size <= cns_app_header_size);
    cor_assert(node.app_hdr != nullptr || node.app_hdr_size == 0);
    cor_assert(node.size >= 0);
    std::string place;
    RETURN_IF_ERROR(_cns_place(ns, path, &place));
    ts_dprintf(3, "cns_create_node: creating <%s>, generation = %jd\n", place.c_str(),
               static_cast<std::intmax_t>(node.generation));
    const cns_attrs_t attrs = node_attrs(*ns, node);
    if (!S_ISDIR(node.file_type & file_type_mask))
        return _cns_create_proxy_header(ns, place, attrs, node.app_hdr, node.app_hdr_size);
    if (mkdir(place.c_str(), node.permissions & permission_mask) != 0 && errno != EEXIST)
        return errdesc_set_str(errno, place);
    return _cns_create_proxy_header(ns, _cns_dir_header(place), attrs, node.app_hdr, node.app_hdr_size);
}

errdesc_t* cns_mkdirp(cns_handle_t* ns, const std::string& path, std::time_t time, mode_t permissions,
                      std::uint64_t owner, std::uint64_t generation) {
    cor_assert(path.size() < path_size);
    std::string place;
    RETURN_IF_ERROR(_cns_place(ns, path, &place));
    const cns_node_t node{
        .owner = owner, .generation = generation, .time = time, .file_type = S_IFDIR, .permissions = permissions};
    std::size_t slash = path.find_first_not_of('/');
    while ((slash = path.find('/', slash)) != std::string::npos) {
        errdesc_t* e = cns_create_node(ns, path.substr(0, slash), node);
        if (e != nullptr && e->number != EEXIST)
            return e;
        slash++;
    }
    return nullptr;
}

errdesc_t* cns_get_attrs(const cns_handle_t* ns, const std::string& path, cns_attrs_t* attrs, void* app_hdr,
                         std::size_t app_hdr_size) {
    cor_assert(app_hdr_size <= cns_app_header_size);
    std::string place;
    RETURN_IF_ERROR(_cns_place(ns, path, &place));
    struct stat st {};
    if (lstat(place.c_str(), &st) != 0)
        return errdesc_set_str(errno, place);

    std::unique_ptr<cns_stub_header_t> header;
    if (S_ISLNK(st.st_mode) || is_top(path))
        header = std::make_unique<cns_stub_header_t>();
    else
        RETURN_IF_ERROR(_cns_read_proxy_header(S_ISDIR(st.st_mode) ? _cns_dir_header(place) : place, false, &header));
    if (S_ISLNK(st.st_mode) || S_ISDIR(st.st_mode))
        header->cns_attrs.statb = cor_statb_from_stat(st);
    if (attrs != nullptr)
        *attrs = header->cns_attrs;
    if (app_hdr != nullptr)
        std::memcpy(app_hdr, header->app_header.data(), app_hdr_size);
    return nullptr;
}

errdesc_t* cns_proxy_mtime(const cns_handle_t* ns, const std::string& path, std::time_t* mtime) {
    cor_assert(mtime != nullptr);
    *mtime = 0;
    std::string place;
    RETURN_IF_ERROR(_cns_place(ns, path, &place));
    struct stat st {};
    if (lstat(place.c_str(), &st) != 0)
        return errdesc_set_str(errno, place);
    if (S_ISDIR(st.st_mode) && !is_top(path)) {
        const std::string header_path = _cns_dir_header(place);
        if (lstat(header_path.c_str(), &st) != 0)
            return errdesc_set_str(errno, header_path);
    }
    *mtime = st.st_mtim.tv_sec;
    return nullptr;
}

errdesc_t* cns_opendir(const cns_handle_t* ns, const std::string& path, dir_ptr* dir) {
    cor_assert(dir != nullptr);
    std::string place;
    RETURN_IF_ERROR(_cns_place(ns, path, &place));
    dir->reset(opendir(place.c_str()));
    return *dir != nullptr ? nullptr : errdesc_set_str(errno, place);
}

std::optional<std::string> cns_readdir(const cns_handle_t* ns, const dir_ptr& dir) {
    _cns_check_handle(ns);
    cor_assert(dir != nullptr);
    while (const dirent* entry = readdir(dir.get())) {  // NOLINT(concurrency-mt-unsafe): the stream is the caller's
        const std::string_view name = entry->d_name;
        if (!name.starts_with(cns_internal_prefix))
            return std::string(name);
    }
    return std::nullopt;
}

void cns_closedir(const cns_handle_t* ns, dir_ptr* dir) {
    _cns_check_handle(ns);
    cor_assert(dir != nullptr);
    dir->reset();
}

errdesc_t* cns_unlink(cns_handle_t* ns, const std::string& path) {
    std::string place;
    RETURN_IF_ERROR(_cns_place(ns, path, &place));
    ts_dprintf(3, "cns_unlink: unlinking <%s>\n", place.c_str());
    const int number = _cns_unlink_header(ns, place);
    return number == 0 ? nullptr : errdesc_set_str(number, place);
}

errdesc_t* cns_symlink(cns_handle_t* ns, const std::string& target, const std::string& link_path) {
    std::string place;
    RETURN_IF_ERROR(_cns_place(ns, link_path, &place));
    ts_dprintf(3, "cns_symlink: linking <%s> to <%s>\n", target.c_str(), place.c_str());
    if (symlink(target.c_str(), place.c_str()) == 0)
        return nullptr;
    return errdesc_set_fmt(errno, "symlink failed: %s, %s, %s, %s", target.c_str(), link_path.c_str(), target.c_str(),
                           place.c_str());
}

errdesc_t* cns_rename(cns_handle_t* ns, const std::string& old_path, const std::string& new_path) {
    std::string old_place;
    std::string new_place;
    RETURN_IF_ERROR(_cns_place(ns, old_path, &old_place));
    RETURN_IF_ERROR(_cns_place(ns, new_path, &new_place));
    const mutex_lock_t lock(_cns_generation_mutex);
    const std::int64_t replaced = old_place == new_place ? 0 : _cns_header_blocks(new_place);
    if (rename(old_place.c_str(), new_place.c_str()) != 0)
        return errdesc_set_fmt(errno, "Cannot rename %s to %s", old_path.c_str(), new_path.c_str());
    _cns_add_blocks(ns, -replaced);
    return nullptr;
}

std::int64_t cns_get_fs_blocks_used(const cns_handle_t* ns) {
    _cns_check_handle(ns);
    const std::int64_t used = ns->fs_blocks_used;
    cor_assert(used >= 0);
    cor_assert(ns->fs_sectors_per_block > 0);
    return used / ns->fs_sectors_per_block;
}

errdesc_t* cns_lock(cns_handle_t* ns, const std::string& dir_path) {
    std::string place;
    RETURN_IF_ERROR(_cns_place(ns, dir_path, &place));
    const std::string lock = lock_of(place);
    return mkdir(lock.c_str(), lock_mode) == 0 ? nullptr : errdesc_set_str(errno, lock);
}

errdesc_t* cns_unlock(cns_handle_t* ns, const std::string& dir_path) {
    std::string place;
    RETURN_IF_ERROR(_cns_place(ns, dir_path, &place));
    const std::string lock = lock_of(place);
    return rmdir(lock.c_str()) == 0 ? nullptr : errdesc_set_str(errno, lock);
}

}  // namespace mirador
