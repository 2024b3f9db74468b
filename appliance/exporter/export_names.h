// SPDX-License-Identifier: Apache-2.0
// The names that one exported disk goes by. Beside its export name a flat disk can be reached under a loop-file name,
// under which a changed-block export binds it to a loop device.
//
//   export name        /vm/disk-flat.vmdk
//   loop-file name     /vm/disk-flat.vmdk-cbt-losetup
//   changed-block name /vm/disk-corcbt.vmdk
//
// Errors are ERR_INVALID_ARG (1009) with the texts named below.
#pragma once

#include <string>

#include "lib/errdesc.h"

namespace mirador {

// Whether the name is a changed-block file's, or the loop-file name of one.
bool is_corcbt_name(const std::string& path);

// The exported path, below the fixed export root, of the flat disk that belongs to a changed-block path; `file_ext` is
// what stands for "-corcbt.vmdk" ("-flat.vmdk", "-rdm.vmdk"). "Invalid corcbt vmdk path".
[[nodiscard]] errdesc_t* corcbt_to_export_file(const std::string& cbt_path, const std::string& file_ext,
                                               std::string* export_path);

// The loop-file name of an exported path: its last extension replaced. "Invalid export vmdk path".
[[nodiscard]] errdesc_t* export_to_losetup_file(const std::string& export_flat, std::string* losetup_file);

// Translates an exported path and its shadow path from loop-file names to export names; false, with nothing raised,
// when they are none.
[[nodiscard]] bool losetup_paths_to_export(const std::string& path, const std::string& shadow_path,
                                           std::string* export_path, std::string* export_shadow);

// The export name of a loop-file name. "Invalid export vmdk path" for any other name.
[[nodiscard]] errdesc_t* losetup_file_to_export(const std::string& losetup_file, std::string* export_path);

}  // namespace mirador
