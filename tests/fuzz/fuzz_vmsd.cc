// SPDX-License-Identifier: Apache-2.0
// Any file in the place of a snapshot database: opened as a host's file, and, once checked, read by the strict parser.
#include <cstdlib>

#include "tests/fuzz/memory_file.h"
#include "vmware/lib/vmsd/vmsd.h"
#include "vmware/lib/vmsd/vmsd_parse.h"

using namespace mirador;

namespace {

// What a record promises whatever it was read from.
void use(const vmsddesc_t& desc) {
    vmsd_dump_vmsddesc(&desc, null_stream());
    cor_assert(desc.snapshot.size() <= vmsd_max_snapshots + 1);
    std::size_t disks = 0;
    for (const vmsdsnapshot_t& snapshot : desc.snapshot) {
        cor_assert(snapshot.magic == 0 || snapshot.magic == vmsdsnapshot_t::magic_value);
        disks += snapshot.disk.size();
        for (const vmsddisk_t& disk : snapshot.disk)
            cor_assert((disk.magic == vmsddisk_t::magic_value) == disk.filename.has_value());
    }
    cor_assert(disks <= vmsd_max_all_disks);
}

// What was picked out is all known, and stays as it is when it is picked from again.
void filter(const std::string& text) {
    vmsd_filtered_t once;
    vmsd_filtered_t twice;
    cor_assert(!vmsd_filter(text, &once) && !vmsd_filter(once.text, &twice));
    cor_assert(twice.text == once.text && twice.lost_lines == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static memory_file_t file;
    const std::string text(data, data + size);
    file.fill(data, size);
    filter(text);
    vmsddesc_t desc;
    if (!vmsd_open(file.path(), &desc))
        use(desc);
    if (!vmsd_check(file.path(), text)) {
        static_cast<void>(vmsd_parse_file_contents(file.path(), &desc));
        use(desc);
    }
    return 0;
}
