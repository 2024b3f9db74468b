// SPDX-License-Identifier: Apache-2.0
// What is asked of a record before the daemon acts on it. Records come from the controller as they are, and their texts
// become parts of paths that are written to and removed recursively, of URLs, and of headers with fixed fields; the
// functions that make those take for granted what is checked here. A record that fails is an error of this one object.
//
// Pure functions; any thread may call them. Errors: EINVAL, or ENAMETOOLONG for what is too long, with "<kind> '<name>'
// refused, <fault>".
#pragma once

#include <cstddef>

#include "controller/lib/kestrel_types.h"
#include "lib/errdesc.h"
#include "lib/list.h"

namespace mirador {

// Limits in bytes.
inline constexpr std::size_t max_host_name = 255;
inline constexpr std::size_t max_uuid = 63;
inline constexpr std::size_t max_file_name = 255;
inline constexpr std::size_t max_link_path = 512;
// Any other path of the controller's: two of them and a file name still fit into one path.
inline constexpr std::size_t max_inventory_path = 1900;
// Disks of one VM that are exported.
inline constexpr int max_exported_disks = 184;

// A host name that can be a directory, stand in a query, and fit into a header: there, at most 255 bytes, no "/",
// blank, control character or any of "\"#%&+<>?\\", not beginning with a full stop.
[[nodiscard]] errdesc_t* ks_hypervisor_config_check(const ks_hypervisor_config_t& hvc);

// A name that can be a directory below the shadow root (at most 255 bytes, no "/", not ".", ".." or ".uuid") and a
// uuid.
[[nodiscard]] errdesc_t* ks_vm_folder_check(const ks_vm_folder_t& fldr);

// Host name and folder as above; a uuid of at most 63 bytes that can stand in a query and be a file name; a name that
// encoded takes at most 255 bytes; a datastore's uuid and name that can be directories, where there are any; a VMX path
// that ends in ".vmx" (a template's in ".vmtx"), does not climb by ".." and leaves a copy in the cache a path of at
// most 512 bytes; a snapshot directory that is not too long. A VM without a datastore passes: its export tells so
// itself.
[[nodiscard]] errdesc_t* ks_vm_config_check(const ks_vm_config_t& vmc);

// Descriptor and extent of base and head, each there, the base's not climbing by "..", each with a file name; the
// descriptors at most 512 bytes long. Only for disks that are exported.
[[nodiscard]] errdesc_t* ks_vdisk_check(const ks_vdisk_t& vd);

// No more than max_exported_disks disks that are not independent. `vm_name` is for the error's text.
[[nodiscard]] errdesc_t* ks_vdisk_count_check(const list_t<ks_vdisk_t>& disks, const ks_string_t& vm_name);

}  // namespace mirador
