// SPDX-License-Identifier: Apache-2.0
// Any file in the place of a disk's descriptor: checked, then read.
#include <string>

#include "tests/fuzz/memory_file.h"
#include "tests/support/record_bytes.h"
#include "vmware/lib/vmdk/descriptor_check.h"
#include "vmware/lib/vmdk/vmdk_parse.h"

using namespace mirador;

namespace {

std::string dump(const vmdkdesc_t& desc) {
    return printed([&](std::FILE* stream) { vmdk_dump_disk_desc(&desc, stream); });
}

// What a passed check promises: a disk with a size, and the parser reads the same.
void read_checked(const std::string& path, const std::string& bytes, const vmdkdesc_t& checked) {
    cor_assert(checked.extentdesccount() > 0 && checked.extentdesccount() <= vmdkdesc_t::max_extents);
    std::uint64_t sectors = 0;
    for (const auto& extent : checked.extentdesc) {
        cor_assert(extent->extentoffset == sectors && extent->extentsize > 0);
        cor_assert(!extent->extentname.empty() && extent->extentname.size() <= vmdk_max_name);
        sectors += extent->extentsize;
    }
    cor_assert(sectors <= INT64_MAX / sector_size);

    vmdkdesc_t desc;
    cor_assert(!vmdk_parse_file_contents(path, &desc));
    cor_assert(dump(desc) == dump(checked));
    static_cast<void>(vmdk_parse_file_contents3(bytes, &desc));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static memory_file_t file;
    file.fill(data, size);
    vmdkdesc_t desc;
    if (!vmdk_check_descriptor(file.path(), descriptor_role_t::head, &desc))
        read_checked(file.path(), std::string(data, data + size), desc);
    return 0;
}
