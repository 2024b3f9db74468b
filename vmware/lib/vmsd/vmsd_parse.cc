// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmsd/vmsd_parse.h"

#include <cerrno>

#include "lib/cor_assert.h"
#include "lib/text_file.h"
#include "vmware/lib/vmsd/vmsd.h"
#include "vmware/lib/vmsd/vmsd_reader.h"

namespace mirador {
errdesc_t* vmsd_parse_file_contents(const std::string& path, vmsddesc_t* vmsddesc) {
    cor_assert(vmsddesc);
    *vmsddesc = {};
    std::string text;
    vmsd_reader_t reader;
    RETURN_IF_ERROR(read_text_file(path, vmsd_file_kind, vmsd_max_text, &text));
    RETURN_IF_ERROR(reader.open());
    return reader.parse(text, {.desc = vmsddesc}) ? nullptr : errdesc_set_str(EINVAL, "cannot parse the input file");
}

errdesc_t* vmsd_check(const std::string& path, std::string_view text) {
    const auto refuse = [&](const char* fault) {
        return errdesc_set_fmt(EINVAL, "%s refused, %s: %s", vmsd_file_kind, fault, path.c_str());
    };
    vmsd_seen_t seen;
    vmsd_reader_t reader;
    RETURN_IF_ERROR(reader.open());
    static_cast<void>(reader.parse(text, {.seen = &seen, .any_text = true}));
    if (seen.bad_count)
        return refuse("a count out of range");
    if (seen.snapshots > vmsd_max_snapshots)
        return refuse("too many snapshots");
    if (seen.disks > vmsd_max_all_disks)
        return refuse("too many disks");
    return seen.cut_name ? refuse("a file name too long") : nullptr;
}

}  // namespace mirador
