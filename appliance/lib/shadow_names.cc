// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/shadow_names.h"

#include <cerrno>
#include <climits>

#include "lib/cor_assert.h"

namespace mirador {
namespace {

constexpr std::string_view encoded_characters = "\"*/:<>?\\|";
constexpr std::size_t code_length = 3;  // "%2F"
// What is left free behind a checked path, or before it, for mount roots, keys, file names and temporary names.
constexpr std::size_t spare_room = 1024;
constexpr std::string_view vmx_suffix = ".vmx";
constexpr std::string_view template_suffix = ".vmtx";
constexpr std::string_view cfg_suffix = ".cfg";

// The fault stands before the text, so that a long text cannot push it out.
errdesc_t* refuse(errnum_t number, const char* kind, const char* fault, const std::string& text) {
    return errdesc_set_fmt(number, "%s refused, %s: %s", kind, fault, text.c_str());
}

std::string_view suffix_of(bool is_template) {
    return is_template ? template_suffix : vmx_suffix;
}

std::string code_of(char c) {
    return cor_format("%%%2.2X", static_cast<unsigned>(static_cast<unsigned char>(c)));
}

// Calls `check` with each component of a path, the empty ones too, until one returns an error.
template <typename check_t>
errdesc_t* check_components(std::string_view path, check_t check) {
    for (;;) {
        const std::size_t slash = path.find('/');
        RETURN_IF_ERROR(check(path.substr(0, slash)));
        if (slash == std::string_view::npos)
            return nullptr;
        path.remove_prefix(slash + 1);
    }
}

}  // namespace

errdesc_t* shadow_check_name(const std::string& name, const char* kind) {
    if (name.empty())
        return refuse(EINVAL, kind, "it is empty", name);
    if (name == "." || name == ".." || name == shadow_lock_name)
        return refuse(EINVAL, kind, "it is a name of the system", name);
    if (name.find('/') != std::string::npos)
        return refuse(EINVAL, kind, "it has a slash", name);
    if (name.find('\0') != std::string::npos)
        return refuse(EINVAL, kind, "it has a zero byte", name);
    if (name.size() > NAME_MAX)
        return refuse(ENAMETOOLONG, kind, "it is too long", name);
    return nullptr;
}

errdesc_t* shadow_check_path(const std::string& path, const char* kind) {
    if (path.empty())
        return refuse(EINVAL, kind, "it is empty", path);
    if (path.find('\0') != std::string::npos)
        return refuse(EINVAL, kind, "it has a zero byte", path);
    if (path.size() > path_size - spare_room)
        return refuse(ENAMETOOLONG, kind, "it is too long", path);
    return check_components(path, [&](std::string_view component) -> errdesc_t* {
        if (component == "..")
            return refuse(EINVAL, kind, "it leads upwards", path);
        return component.size() > NAME_MAX ? refuse(ENAMETOOLONG, kind, "a name in it is too long", path) : nullptr;
    });
}

errdesc_t* shadow_check_vmx_path(const std::string& vmx_path, bool is_template) {
    constexpr const char* kind = "VMX path";
    RETURN_IF_ERROR(shadow_check_path(vmx_path, kind));
    return vmx_path.ends_with(suffix_of(is_template)) ? nullptr
                                                      : refuse(EINVAL, kind, "it does not name a VMX file", vmx_path);
}

std::string percent_encode_vm_name(std::string_view name, std::size_t size) {
    std::string encoded;
    const auto places_left = [&] { return size - encoded.size(); };
    std::size_t taken = 0;
    for (; taken < name.size() && places_left() > code_length; taken++) {
        if (encoded_characters.find(name[taken]) != std::string_view::npos)
            encoded += code_of(name[taken]);
        else
            encoded.push_back(name[taken]);
    }
    if (taken > 0 && name[taken - 1] == '.' && places_left() >= code_length) {
        encoded.pop_back();
        encoded += code_of('.');
    }
    return encoded;
}

errdesc_t* shadow_vm_path(const std::string& root, const std::string& group, const std::string& vm_name,
                          std::string* vm_path) {
    std::string group_path;
    RETURN_IF_ERROR(shadow_group_path(root, group, "Group name", &group_path));
    const std::string directory = percent_encode_vm_name(vm_name);
    RETURN_IF_ERROR(shadow_check_name(directory, "VM name"));
    std::string path = group_path + "/" + directory;
    if (path.size() > path_size - spare_room)
        return refuse(ENAMETOOLONG, "VM path", "it is too long", path);
    *vm_path = std::move(path);
    return nullptr;
}

errdesc_t* shadow_group_path(const std::string& root, const std::string& group, const char* kind, std::string* path) {
    RETURN_IF_ERROR(shadow_check_name(group, kind));
    if (group == shadow_uuid_dir)
        return refuse(EINVAL, kind, "it is a name of the system", group);
    *path = cor_format("%s/%s", root.c_str(), group.c_str());
    return nullptr;
}

errdesc_t* shadow_uuid_path(const std::string& root, const std::string& uuid, std::string* path) {
    RETURN_IF_ERROR(shadow_check_name(uuid, "VM uuid"));
    *path = cor_format("%s/%s/%s", root.c_str(), std::string(shadow_uuid_dir).c_str(), uuid.c_str());
    return nullptr;
}

std::string shadow_cfg_path(const std::string& vmx_path, bool is_template) {
    const std::string_view suffix = suffix_of(is_template);
    cor_assert(vmx_path.ends_with(suffix));
    return vmx_path.substr(0, vmx_path.size() - suffix.size()).append(cfg_suffix);
}

std::string translate_shadow_path(const std::string& path, const std::string& root) {
    if (path == root)
        return "/";
    if (path.starts_with(root) && path[root.size()] == '/')
        return path.substr(root.size());
    const std::size_t slash = path.find('/', 1);
    return slash == std::string::npos ? "/" : path.substr(slash);
}

}  // namespace mirador
