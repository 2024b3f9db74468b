// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/vm_proxy_attr.h"

#include <cerrno>
#include <cstring>
#include <memory>

#include "appliance/exporter/closed_places.h"
#include "appliance/exporter/controller_thr.h"
#include "appliance/exporter/export_names.h"
#include "appliance/exporter/snapshot_command.h"
#include "appliance/exporter/vm_proxy_open.h"
#include "appliance/exporter/vm_proxy_table.h"
#include "appliance/exporter/vm_update.h"
#include "appliance/lib/cor_namespace.h"
#include "appliance/lib/registry.h"
#include "lib/cor_assert.h"
#include "lib/error_hash.h"
#include "lib/fs_info.h"
#include "lib/log.h"

namespace mirador {
namespace {

constexpr blksize_t preferred_block_size = 131072;
constexpr int check_debug_level = 2;  // above it attributes that look wrong are printed

// The status of a shadow path, or, where that fails, of the export that it is the loop-file name of; *shadow_path
// becomes the name that was found.
errdesc_t* stat_shadow(const std::string& path, std::string* shadow_path, struct stat* st) {
    if (stat(shadow_path->c_str(), st) == 0)
        return nullptr;
    const int number = errno;
    std::string export_path;
    std::string export_shadow;
    if (!losetup_paths_to_export(path, *shadow_path, &export_path, &export_shadow))
        return errdesc_set_fmt(number, "lstat failed: %s", shadow_path->c_str());
    if (lstat(export_shadow.c_str(), st) != 0)
        return errdesc_set_fmt(errno, "lstat failed: %s", shadow_path->c_str());
    *shadow_path = export_shadow;
    return nullptr;
}

void refresh_vm_of(const std::string& shadow_file) {
    if (errdesc_t* e = vm_update(shadow_file.substr(0, shadow_file.rfind('/')), false, false))
        _errdesc_log(e, ERRDESC_WARNING);
}

// What "devicemapper_path" and "vm_uuid" tell of a flat disk that has been opened; empty for everything else.
errdesc_t* cookie_value(const std::string& path, const std::string& shadow_path, std::string cookie_info_t::*field,
                        std::string* value) {
    cookie_ptr cookie;
    RETURN_IF_ERROR(vm_proxy_get_cookie(path, shadow_path, &cookie));
    const cookie_info_t info = cookie->info();
    if (info.type == VM_PROXY_HEADER_VMDK_FLAT && !info.devicemapper_path.empty())
        *value = info.*field;
    return nullptr;
}

// The name under which a path's errors are saved: the export name of a loop-file name.
std::string error_path(const std::string& path) {
    std::string export_path;
    return losetup_file_to_export(path, &export_path) == nullptr ? export_path : path;
}

// The error saved for a path; null if there is none.
const errdesc_t* saved_error(const std::string& path) {
    return error_hash_get(error_path(path));
}

bool is_command(const std::string& name) {
    return name.starts_with(snapshot_command_name);
}

// The value of an attribute; *length counts its terminator, and is 0 for a value that is not there at all.
errdesc_t* attribute_value(const std::string& path, const std::string& shadow_path, const std::string& name,
                           std::string* value, std::size_t* length) {
    const errdesc_t* saved = nullptr;
    *length = 0;
    if (name == "devicemapper_path") {
        RETURN_IF_ERROR(cookie_value(path, shadow_path, &cookie_info_t::devicemapper_path, value));
    } else if (name == "vm_uuid") {
        RETURN_IF_ERROR(cookie_value(path, shadow_path, &cookie_info_t::vm_uuid, value));
    } else if (name == "smartread_lvm_enabled") {
        *value = get_reg_settings()->smartread_lvm_enabled ? "1" : "0";
    } else if (name == "user.err_num") {
        saved = saved_error(path);
        *value = std::to_string(saved == nullptr ? 0 : saved->number);
    } else if (name == "user.err_string") {
        saved = saved_error(path);
        *value = saved == nullptr ? "" : saved->string;
        *length = 1;
    }
    if (is_command(name))
        *value = snapshot_command(path, shadow_path, name);
    if (!value->empty())
        *length = value->size() + 1;
    return nullptr;
}

// Who asks how long a command's value is will ask for the value next: the command is carried out only once.
bool is_length_of_command(const std::string& name, std::size_t room, std::size_t* length) {
    if (room != 0 || !is_command(name))
        return false;
    *length = snapshot_command_max;
    return true;
}

// What the export itself says of an object.
void add_own(const std::string& path, struct stat* stbuf) {
    stbuf->st_ino = fs_ino_hash(path);
    stbuf->st_blksize = preferred_block_size;
}

// The attributes of a path; *header is its header, null for a directory.
errdesc_t* look_up(const std::string& path, const std::string& shadow_path, bool update, struct stat* stbuf,
                   std::unique_ptr<vm_proxy_header_t>* header) {
    std::string found = shadow_path;
    RETURN_IF_ERROR(stat_shadow(path, &found, stbuf));
    if (!S_ISDIR(stbuf->st_mode)) {
        if (update)
            refresh_vm_of(found);
        RETURN_IF_ERROR(vm_proxy_read_header_checked(found, header));
        *stbuf = vm_proxy_header_attr(**header, path);
    } else {
        show_shadow_root(stbuf);
        add_own(path, stbuf);
    }
    if (get_reg_settings()->debug_level > check_debug_level)
        cns_check_statb(path, "vm_proxy_getattr", *stbuf, false);
    return nullptr;
}

}  // namespace

struct stat vm_proxy_header_attr(const vm_proxy_header_t& header, const std::string& path) {
    struct stat st = cor_statb_to_stat(header.statb);
    if (header.type == VM_PROXY_HEADER_CFG)
        st.st_size += static_cast<off_t>(cfg_trailer_size);
    add_own(path, &st);
    return st;
}

errdesc_t* vm_proxy_getattr(const std::string& path, const std::string& shadow_path, bool update, struct stat* stbuf) {
    std::unique_ptr<vm_proxy_header_t> header;
    return look_up(path, shadow_path, update, stbuf, &header);
}

void vm_proxy_fgetattr(const fuse_fh_t& fh, const std::string& path, const std::string& shadow_path,
                       struct stat* stbuf) {
    const errdesc_keeper_t keeper;
    std::unique_ptr<vm_proxy_header_t> header;
    if (look_up(path, shadow_path, true, stbuf, &header) != nullptr || header == nullptr || header->type != fh.type ||
        fh.vm_uuid != header->vm_uuid)
        *stbuf = fh.attributes;
}

errdesc_t* vm_proxy_getxattr(const std::string& path, const std::string& shadow_path, const std::string& name,
                             char* value, std::size_t* size) {
    ts_dprintf(2, "vm_proxy_getxattr : path %s, name %s, size %zd\n", path.c_str(), name.c_str(),
               static_cast<ssize_t>(*size));
    const std::size_t room = *size;
    if (is_length_of_command(name, room, size))
        return nullptr;
    std::string text;
    std::size_t length = 0;
    RETURN_IF_ERROR(attribute_value(path, shadow_path, name, &text, &length));
    *size = length;
    if (value == nullptr || room == 0)
        return nullptr;
    if (room < length)
        return errdesc_set_fmt(ERANGE, "The value buffer is too small (%zd bytes needed.)",
                               static_cast<ssize_t>(length + 1));
    std::memcpy(value, text.c_str(), length);
    return nullptr;
}

errdesc_t* vm_proxy_setxattr(const std::string& path, const std::string& name) {
    if (name == "user.err_reset")
        error_hash_save(error_path(path), nullptr);
    return nullptr;
}

errdesc_t* vm_proxy_statvfs(const std::string& shadow_path, struct statvfs* stbuf) {
    const vm_proxy_open_list_t& table = vm_proxy_open_list();
    cor_assert(table.magic == vm_proxy_open_list_t::magic_value);
    cor_assert(table.version == vm_proxy_open_list_t::version_value);
    if (statvfs(shadow_path.c_str(), stbuf) != 0)
        return errdesc_set_str(errno, shadow_path);
    stbuf->f_files -= stbuf->f_ffree;
    stbuf->f_ffree = 0;
    stbuf->f_favail = 0;
    stbuf->f_blocks = static_cast<fsblkcnt_t>(get_fs_blocks_used());
    stbuf->f_bfree = 0;
    stbuf->f_bavail = 0;
    return nullptr;
}

}  // namespace mirador
