// SPDX-License-Identifier: Apache-2.0
// What clients learn of an exported object without opening it: attributes, extended attributes, file-system totals.
//
// The extended attributes are a small control protocol:
//   devicemapper_path       the block device behind an open flat disk; empty while there is none
//   vm_uuid                 the VM of an open flat disk; empty while there is none
//   smartread_lvm_enabled   "1" or "0": the setting
//   user.err_num            number of the error saved for the path, "0" when none is
//   user.err_string         its text, empty when none is
//   snapshot_scrub:NAME     of a VM's directory: reading it is the order to remove the snapshot; "number:text"
// Writing "user.err_reset" forgets the path's error. Any other name reads as an empty value and is accepted when
// written. The error rows take no lock but the error memory's; nothing here waits for the table lock.
#pragma once

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cstddef>
#include <string>

#include "appliance/exporter/vm_proxy_table.h"
#include "lib/errdesc.h"

namespace mirador {

// The attributes of the exported `path`, whose shadow is `shadow_path`: for a file those stored in its proxy header.
// Inode numbers follow from the exported path alone. With `update`, a file's VM is refreshed first if it needs it.
// Errors: errno with "lstat failed: <shadow_path>"; the proxy header's.
[[nodiscard]] errdesc_t* vm_proxy_getattr(const std::string& path, const std::string& shadow_path, bool update,
                                          struct stat* stbuf);

// The same for a file that is open. Once its path does not lead to it any more, as its VM has left the tree or another
// one has taken its place, it keeps the attributes that it had when it was opened: its bytes are still served, and a
// reader who got an error, or another's size, here would not get them all.
void vm_proxy_fgetattr(const fuse_fh_t& fh, const std::string& path, const std::string& shadow_path,
                       struct stat* stbuf);

// What a file's header says of it under an exported path.
struct stat vm_proxy_header_attr(const vm_proxy_header_t& header, const std::string& path);

// Reads an extended attribute. *size: on entry the room in `value`, 0 asks for the length only; on return the length,
// terminator included. Errors: 34 when the value does not fit, with one more than the length in its text; those of
// making a cookie of the path.
[[nodiscard]] errdesc_t* vm_proxy_getxattr(const std::string& path, const std::string& shadow_path,
                                           const std::string& name, char* value, std::size_t* size);

// Writes an extended attribute; nothing fails.
[[nodiscard]] errdesc_t* vm_proxy_setxattr(const std::string& path, const std::string& name);

// The totals: files in use, and the blocks of everything exported; nothing is free. Error: errno with the shadow path.
[[nodiscard]] errdesc_t* vm_proxy_statvfs(const std::string& shadow_path, struct statvfs* stbuf);

}  // namespace mirador
