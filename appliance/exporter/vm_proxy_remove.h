// SPDX-License-Identifier: Apache-2.0
// Taking proxy headers out of the shadow tree. Keeps the count of blocks of controller_thr.h.
#pragma once

#include <string>

#include "lib/errdesc.h"
#include "lib/thread_annotations.h"

namespace mirador {

// Held while a header is replaced or removed and the count of blocks follows it: a directory may be removed while one
// of its VMs is updated, or by two threads, and each header must be counted once. A leaf, for moments.
mutex_t& vm_proxy_count_mutex();

// Removes one header, or a link; a missing one is success. Error: errno with the path.
[[nodiscard]] errdesc_t* vm_proxy_remove(const std::string& shadow_path);

// Removes a directory of the shadow tree with everything in it; a missing one is success, and so is what another thread
// removes meanwhile. One that gets a new entry meanwhile stays, which is printed. Error: errno with what cannot be
// removed or looked at.
[[nodiscard]] errdesc_t* vm_proxy_remove_tree(const std::string& shadow_dir);

}  // namespace mirador
