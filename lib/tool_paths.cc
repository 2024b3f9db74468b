// SPDX-License-Identifier: Apache-2.0
#include "lib/tool_paths.h"

namespace mirador {

tool_paths_t& tool_paths() {
    static tool_paths_t paths;
    return paths;
}

}  // namespace mirador
