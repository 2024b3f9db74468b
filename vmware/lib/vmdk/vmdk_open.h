// SPDX-License-Identifier: Apache-2.0
// Opening a virtual disk's descriptor, closing everything that hangs on it, and the disk's size.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "lib/errdesc.h"
#include "vmware/lib/vmdk/descriptor_check.h"
#include "vmware/lib/vmdk/vmdkdesc.h"

namespace mirador {

// Reads the descriptor `path` through its datastore's preferred mount and opens the record: `filename`, `dirname`,
// `datastore_direct` and `magic` are set. On an error the record is closed. Errors: those of
// get_preferred_datastore_path and vmdk_parse_file_contents, with its assertions.
[[nodiscard]] errdesc_t* vmdk_open(const std::string& path, vmdkdesc_t* vmdkdesc);

// The same for a descriptor that somebody else may have written: it is read by vmdk_check_descriptor, whose errors take
// the place of assertions. The file of an EAGAIN is printed at level 4.
[[nodiscard]] errdesc_t* vmdk_open_checked(const std::string& path, descriptor_role_t role, vmdkdesc_t* vmdkdesc);

// Closes extent files and frees grain directories, the grain-table buffer, ancestors and the descriptor's contents; the
// record is as new afterwards. Closing one that is not open is allowed.
void vmdk_close(vmdkdesc_t* vmdkdesc);

// The directory part of a path; "." for a path without one.
std::string vmdk_get_dir(const std::string& path);

// `name` itself if it is absolute, else "<dir>/<name>".
std::string vmdk_get_path(const std::string& name, const std::string& dir);

// The disk's size in bytes: the sum of its extents' sizes. The record must be open (asserted).
std::uint64_t vmdk_size(const vmdkdesc_t& vmdkdesc);

// The status of the disk's descriptor file, with the size and the block count of the whole disk instead of the
// descriptor's. The record must be open (asserted). Errors: errno with the descriptor's path.
[[nodiscard]] errdesc_t* vmdk_stat(const vmdkdesc_t& vmdkdesc, struct stat* statb);

}  // namespace mirador
