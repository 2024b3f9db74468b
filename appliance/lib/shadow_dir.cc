// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/shadow_dir.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "appliance/lib/registry.h"
#include "appliance/lib/shadow_names.h"
#include "appliance/lib/vm_proxy_header.h"
#include "lib/cor_string.h"
#include "lib/file_tree.h"
#include "lib/log.h"

namespace mirador {
namespace {

constexpr mode_t directory_mode = 0777;
constexpr int dump_debug_level = 3;  // above it the header that stands in the way is dumped

// Where a link leads; empty when there is none.
std::string link_target(const std::string& sympath) {
    std::array<char, path_size> target{};
    const ssize_t length = readlink(sympath.c_str(), target.data(), target.size());
    return length < 0 ? "" : std::string(target.data(), static_cast<std::size_t>(length));
}

// Puts a link to `target` in the place of the link `sympath`, which is there at every moment. False with errno.
bool replace_link(const std::string& target, const std::string& sympath) {
    const std::string temporary = sympath + ".tmp";
    unlink(temporary.c_str());
    return symlink(target.c_str(), temporary.c_str()) == 0 && rename(temporary.c_str(), sympath.c_str()) == 0;
}

std::string directory_of(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(0, slash);
}

errdesc_t* read_owner(const std::string& vmx_shadow_path, std::unique_ptr<vm_proxy_header_t>* header) {
    RETURN_IF_ERROR(vm_proxy_read_header_checked(vmx_shadow_path, header));
    if (get_reg_settings()->debug_level > dump_debug_level)
        vm_proxy_header_dump("check_naming_conflict: proxy header:", **header);
    return nullptr;
}

bool is_own(const vm_proxy_header_t& header, const std::string& vm_uuid) {
    return !vm_uuid.empty() && header.vm_uuid == vm_uuid;
}

}  // namespace

errdesc_t* shadow_make_dir(const std::string& path) {
    if (mkdirp(path, directory_mode) != 0)
        return errdesc_set_str(errno, path);
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0)
        return errdesc_set_str(errno, path);
    return S_ISDIR(st.st_mode) ? nullptr : errdesc_set_str(ENOTDIR, path);
}

void make_symbolic_link(const std::string& target, const std::string& sympath) {
    if (symlink(target.c_str(), sympath.c_str()) == 0)
        return;
    if (errno == EEXIST && (link_target(sympath) == target || replace_link(target, sympath)))
        return;
    ts_printf("Failed to make symlink %s for %s (err %d)\n", sympath.c_str(), target.c_str(), errno);
}

void shadow_link_uuid(const std::string& root, const std::string& vm_symlink, const std::string& vm_path) {
    const std::string directory = root + "/" + std::string(shadow_uuid_dir);
    if (access(directory.c_str(), R_OK) != 0) {
        if (errdesc_t* e = shadow_make_dir(directory))
            _errdesc_log(e, ERRDESC_WARNING);
    }
    make_symbolic_link(vm_path, vm_symlink);
}

errdesc_t* shadow_unlink_uuid(const std::string& vm_symlink, const std::string& vm_path) {
    if (const std::string target = link_target(vm_symlink); !target.empty() && target != vm_path)
        return nullptr;
    if (unlink(vm_symlink.c_str()) != 0 && errno != ENOENT)
        return errdesc_set_str(errno, vm_symlink);
    return nullptr;
}

errdesc_t* check_naming_conflict(const std::string& vmx_shadow_path, const shadow_owner_t& vm,
                                 const std::string& vm_symlink) {
    const std::string directory = directory_of(vmx_shadow_path);
    if (directory.empty()) {
        ts_printf("check_naming_conflict failed, vmxpath %s\n", vmx_shadow_path.c_str());
        return nullptr;
    }
    RETURN_IF_ERROR(shadow_make_dir(directory));

    std::unique_ptr<vm_proxy_header_t> header;
    const errdesc_t* unread = read_owner(vmx_shadow_path, &header);
    if (unread != nullptr || header->hv_name == vm.hv_hostname || is_own(*header, vm.vm_uuid)) {
        if (!vm_symlink.empty())
            make_symbolic_link(directory, vm_symlink);
        return nullptr;
    }
    return errdesc_set_fmt(EINVAL,
                           "Cannot assign two VMs with the same name (%s) into the same folder (%s): attempted to add "
                           "the VM of hypervisor %s to the folder which already contains the VM (same name) of "
                           "hypervisor %s.",
                           vm.vm_name.c_str(), vm.group.c_str(), vm.hv_hostname.c_str(), header->hv_name);
}

}  // namespace mirador
