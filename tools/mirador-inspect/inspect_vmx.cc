// SPDX-License-Identifier: Apache-2.0
#include "tools/mirador-inspect/inspect.h"
#include "tools/mirador-inspect/inspect_vm_json.h"

namespace mirador {

errdesc_t* inspect_vmx(inspect_file_t& file, const inspect_options_t& options, std::FILE* out) {
    vmxdesc_t vmx;
    RETURN_IF_ERROR(vmx_open(file.path, &vmx));
    if (options.json)
        json_print(vmx_json(vmx), out);
    else
        vmx_dump(vmx, out);
    return nullptr;
}

}  // namespace mirador
