// SPDX-License-Identifier: Apache-2.0
// Taking proxy headers out of the shadow tree. Keeps the count of blocks of controller_thr.h.
#pragma once

#include <string>

#include "lib/errdesc.h"

namespace mirador {

// Removes one header; a missing one is success. Error: errno with the path.
[[nodiscard]] errdesc_t* vm_proxy_remove(const std::string& shadow_path);

// Removes a directory of the shadow tree with everything in it; a missing one is success. Errors: rmdirr's.
[[nodiscard]] errdesc_t* vm_proxy_remove_tree(const std::string& shadow_dir);

}  // namespace mirador
