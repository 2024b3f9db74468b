// SPDX-License-Identifier: Apache-2.0
// Opening and releasing exported files. Table, cookies, handles and locks: vm_proxy_table.h.
#pragma once

#include <memory>
#include <string>

#include "appliance/exporter/vm_proxy_table.h"
#include "lib/errdesc.h"

namespace mirador {

// Opens an exported file, by its export name or by its loop-file name, and makes a handle on its cookie. Every failure
// is logged at level 3 and saved in the per-path error memory for the export name, under which the error attributes
// look for it; it takes the cookie out of the table, and is returned as ENOENT (2) with the path.
[[nodiscard]] errdesc_t* vm_proxy_open(const std::string& path, const std::string& shadow_path,
                                       std::unique_ptr<fuse_fh_t>* fh);

// Closes a handle and gives its place on the cookie back; only the handle goes when its cookie has left the table. A
// null handle is logged (116, "NULL fh for <path>") and is no error.
[[nodiscard]] errdesc_t* vm_proxy_release(const std::string& path, std::unique_ptr<fuse_fh_t> fh);

}  // namespace mirador
