// SPDX-License-Identifier: Apache-2.0
// The names of the shadow tree, made from what the controller sends:
//
//   <root>/<group>/<VM>            a VM's directory; the group is the VM's folder, else its hypervisor's host name
//   <root>/<group>/<VM>/x.vmx      the VM's configuration, its disks, and x.cfg, its description
//   <root>/.uuid/<uuid>            a link to the VM's directory
//
// The controller's texts are checked before a path is made of them: directories are removed recursively by these paths,
// and files written, so no text may lead out of the place that is meant for it. Pure functions; any thread may call
// them.
//
// Errors: EINVAL, or ENAMETOOLONG for what does not fit, with "<kind> refused, <fault>: <text>". `kind` is what the
// text is, with a capital letter ("Folder name").
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "lib/cor_string.h"
#include "lib/errdesc.h"

namespace mirador {

inline constexpr std::string_view shadow_lock_name = ".corvantis.lck";  // in a VM's directory while it is in use
inline constexpr std::string_view shadow_uuid_dir = ".uuid";            // at the root

// Whether a text can be the name of one file or directory, as it stands: not empty, "." or "..", without a slash or
// zero byte, at most 255 bytes, not the name of the lock. For datastore keys, uuids, file names of disks.
[[nodiscard]] errdesc_t* shadow_check_name(const std::string& name, const char* kind);

// Whether a path stays below the directory that it is appended to: not empty, no zero byte, no component "..", no
// component above 255 bytes, short enough for any of the places that such paths are appended to.
[[nodiscard]] errdesc_t* shadow_check_path(const std::string& path, const char* kind);

// shadow_check_path for a VMX file's datastore path, which must also end in ".vmx", a template's in ".vmtx".
[[nodiscard]] errdesc_t* shadow_check_vmx_path(const std::string& vmx_path, bool is_template);

// A VM's name as the name of a directory: each of "*/:<>?\| becomes a percent sign and two hexadecimal digits, and
// a full stop at the end too. `size` is the room for the result with its terminator; what exceeds it is cut. Percent
// signs stay, so two VMs ("a/b", "a%2Fb") can get one name: a conflict like any other of equal names.
std::string percent_encode_vm_name(std::string_view name, std::size_t size = path_size);

// The directory of a VM, from checked texts only. "Group name", "VM name" or "VM path" refused.
[[nodiscard]] errdesc_t* shadow_vm_path(const std::string& root, const std::string& group, const std::string& vm_name,
                                        std::string* vm_path);

// "<root>/<host name>" or "<root>/<folder name>", from checked texts only; the name of the directory of links is none.
// `kind` as above.
[[nodiscard]] errdesc_t* shadow_group_path(const std::string& root, const std::string& group, const char* kind,
                                           std::string* path);

// "<root>/.uuid/<uuid>". "VM uuid" refused.
[[nodiscard]] errdesc_t* shadow_uuid_path(const std::string& root, const std::string& uuid, std::string* path);

// A path whose ".vmx" (".vmtx" for a template) at the end gives way to ".cfg". Asserted: it ends so.
std::string shadow_cfg_path(const std::string& vmx_path, bool is_template);

// The client's path of a shadow path: what stands behind `root`, "/" for the root itself. For a path that is not below
// `root`: everything from the second slash on, a leading one not counted; "/" when there is none.
std::string translate_shadow_path(const std::string& path, const std::string& root);

}  // namespace mirador
