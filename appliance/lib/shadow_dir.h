// SPDX-License-Identifier: Apache-2.0
// What is done to the directories and links of the shadow tree. Paths come from lib/shadow_names and have been checked
// there. No state: callers see to it that one thread at a time works on a VM's directory.
#pragma once

#include <string>

#include "lib/errdesc.h"

namespace mirador {

// Makes a VM's directory with its parents, mode 0777; one that exists is fine. Error: errno with the path, ENOTDIR too
// when something else has the name. Callers for whom a missing directory is a fatal assertion call this first.
[[nodiscard]] errdesc_t* shadow_make_dir(const std::string& path);

// Makes `sympath` a link to `target`. A link to another target is replaced; a failure is logged with "Failed to make
// symlink %s for %s (err %d)\n" and nothing else.
void make_symbolic_link(const std::string& target, const std::string& sympath);

// Makes the directory of links below `root` if it is not there (mode 0777), and in it `vm_symlink`, a link to
// `vm_path`. Failures are logged.
void shadow_link_uuid(const std::string& root, const std::string& vm_symlink, const std::string& vm_path);

// Removes a VM's link, unless it leads to another directory than `vm_path` by now: a VM that was renamed has its link
// in its new directory's name before the old one goes. Error: errno with `vm_symlink`; a missing link is none.
[[nodiscard]] errdesc_t* shadow_unlink_uuid(const std::string& vm_symlink, const std::string& vm_path);

// Who wants a VM's directory.
struct shadow_owner_t {
    std::string vm_name;
    std::string vm_uuid = {};
    std::string group;        // folder, or host name
    std::string hv_hostname;  // the hypervisor that has the VM
};

// Whether the directory of `vmx_shadow_path` may hold this VM: the VMX entry that stands there must be of the same
// hypervisor, or of this very VM, which then has come from another one. Makes the directory when there is none and,
// when `vm_symlink` is not empty and the VM may have the directory, the link to it. Errors: EINVAL "Cannot assign two
// VMs with the same name …"; errno with the directory when it cannot be made.
[[nodiscard]] errdesc_t* check_naming_conflict(const std::string& vmx_shadow_path, const shadow_owner_t& vm,
                                               const std::string& vm_symlink);

}  // namespace mirador
