// SPDX-License-Identifier: Apache-2.0
#include "tools/mirador-inspect/inspect.h"
#include "tools/mirador-inspect/inspect_vm_json.h"

namespace mirador {

errdesc_t* inspect_vmsd(inspect_file_t& file, const inspect_options_t& options, std::FILE* out) {
    vmsddesc_t vmsd;
    RETURN_IF_ERROR(vmsd_open(file.path, &vmsd));
    if (options.json)
        json_print(vmsd_json(vmsd), out);
    else
        vmsd_dump_vmsddesc(&vmsd, out);
    return nullptr;
}

}  // namespace mirador
