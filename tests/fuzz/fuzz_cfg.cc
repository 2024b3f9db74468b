// SPDX-License-Identifier: Apache-2.0
// Any file in the place of a VM's exported description: read, checked, printed and read back.
#include <string>

#include "appliance/lib/vmcfg.h"
#include "appliance/lib/vmcfgparser.h"
#include "tests/fuzz/memory_file.h"
#include "tests/support/record_bytes.h"

using namespace mirador;

namespace {

errdesc_t* parse(const std::uint8_t* data, std::size_t size, vmcfg_t* vmcfg) {
    static memory_file_t file;
    file.fill(data, size);
    const file_ptr in(std::fopen(file.path().c_str(), "re"));
    cor_assert(in);
    return cfg_parse_file_contents(in.get(), vmcfg);
}

std::string print(const vmcfg_t& vmcfg) {
    return printed([&](std::FILE* out) { cor_assert(!cfg_print(out, &vmcfg)); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    vmcfg_t vmcfg;
    const bool is_read = !parse(data, size, &vmcfg);
    if (is_read && !cfg_check_record(&vmcfg)) {
        const std::string text = print(vmcfg);
        vmcfg_t again;
        cor_assert(!parse(reinterpret_cast<const std::uint8_t*>(text.data()), text.size(), &again));
        cor_assert(print(again) == text);
    }
    if (is_read) {
        cfg_normalize(&vmcfg);
        cfg_parse_dump(&vmcfg, null_stream());
    }
    cfg_parse_free(&vmcfg);
    return 0;
}
