// SPDX-License-Identifier: Apache-2.0
// A VM's snapshot database (".vmsd"): opening one, and finding the one that a disk belongs to.
//
// Hosts write more than the grammar knows (an encoding, clones, sentinels), put counts behind what they count, and
// leave the file empty while there is no snapshot; all that is read. Any thread may call these at any time.
#pragma once

#include <string>

#include "lib/errdesc.h"
#include "vmware/lib/vmsd/vmsddesc.h"

namespace mirador {

inline constexpr const char* vmsd_file_kind = "Snapshot database";

// Empties *vmsddesc and fills it from the lines of the file `path` that the grammar knows (vmsd_filter), once they are
// checked. Errors: those of read_text_file, vmsd_filter and vmsd_check; nothing in the file is asserted on.
[[nodiscard]] errdesc_t* vmsd_read_vmsddesc(const std::string& path, vmsddesc_t* vmsddesc);

// vmsd_read_vmsddesc, and opens the record: `magic`, `version` and `filename` are set. On an error it is closed.
[[nodiscard]] errdesc_t* vmsd_open(const std::string& path, vmsddesc_t* vmsddesc);

// Frees what the record holds and leaves it as new. Closing one that is not open is allowed.
void vmsd_close(vmsddesc_t* vmsddesc);

// The snapshot database beside the disk `vmdk_path`: the only one in its directory, or of several the one whose name
// without ".vmsd" begins the disk's name, the longest of those. Errors: errno with the directory; ENOENT "No snapshot
// database for %s".
[[nodiscard]] errdesc_t* vmsd_vmdk_to_vmsd(const std::string& vmdk_path, std::string* vmsd_path);

// vmsd_open on the database that vmsd_vmdk_to_vmsd finds, with the errors of both.
[[nodiscard]] errdesc_t* vmsd_open_by_vmdk(const std::string& vmdk_path, vmsddesc_t* vmsddesc);

}  // namespace mirador
