// SPDX-License-Identifier: Apache-2.0
// Any file in the place of a shadow file: checked, then read and used.
#include <cstring>

#include "appliance/lib/vm_proxy_header.h"
#include "tests/fuzz/memory_file.h"

using namespace mirador;

namespace {

// What a passed check promises: the reader takes the same bytes, every text ends inside its field, the size is one.
void use_checked(const std::string& path, const vm_proxy_header_t& checked) {
    std::unique_ptr<vm_proxy_header_t> header;
    cor_assert(!vm_proxy_read_header(path, &header));
    cor_assert(std::memcmp(header.get(), &checked, sizeof checked) == 0);
    cor_assert(std::strlen(header->path) < sizeof header->path);
    cor_assert(std::strlen(header->vm_uuid) < sizeof header->vm_uuid);
    cor_assert(std::strlen(header->hv_name) < sizeof header->hv_name);
    cor_assert(cor_statb_to_stat(header->statb).st_size >= 0);
    cor_assert(std::strcmp(vm_proxy_header_type_str(header->type), "OUT OF RANGE!") != 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static memory_file_t file;
    file.fill(data, size);
    std::unique_ptr<vm_proxy_header_t> header;
    if (!vm_proxy_read_header_checked(file.path(), &header))
        use_checked(file.path(), *header);
    if (size >= sizeof(vm_proxy_header_t)) {
        vm_proxy_header_t any;
        std::memcpy(&any, data, sizeof any);
        vm_proxy_header_dump("any", any, null_stream());
    }
    return 0;
}
