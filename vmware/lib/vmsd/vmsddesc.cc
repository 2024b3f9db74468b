// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmsd/vmsddesc.h"

#include <cinttypes>

#include "lib/cor_string.h"

namespace mirador {
namespace {

const char* text_or_null(const std::optional<std::string>& text) {
    return text ? text->c_str() : "(null)";
}

void dump_disk(const vmsddisk_t& disk, const std::string& name, std::FILE* stream) {
    std::fprintf(stream, "%s.filename = %s\n", name.c_str(), text_or_null(disk.filename));
    std::fprintf(stream, "%s.node = %s\n", name.c_str(), text_or_null(disk.node));
}

void dump_snapshot(const vmsdsnapshot_t& snapshot, const std::string& name, std::FILE* stream) {
    std::fprintf(stream, "%s.uid = %" PRId64 "\n", name.c_str(), static_cast<std::int64_t>(snapshot.uid));
    std::fprintf(stream, "%s.parentuid = %" PRId64 "\n", name.c_str(), static_cast<std::int64_t>(snapshot.parentuid));
    std::fprintf(stream, "%s.filename = %s\n", name.c_str(), text_or_null(snapshot.filename));
    std::fprintf(stream, "%s.displayname = %s\n", name.c_str(), text_or_null(snapshot.displayname));
    std::fprintf(stream, "%s.description = %s\n", name.c_str(), text_or_null(snapshot.description));
    std::fprintf(stream, "%s.createtimehigh = %u\n", name.c_str(), snapshot.createtimehigh);
    std::fprintf(stream, "%s.createtimelow = %u\n", name.c_str(), snapshot.createtimelow);
    std::fprintf(stream, "%s.numdisks = %d\n", name.c_str(), snapshot.numdisks());
    for (std::size_t i = 0; i < snapshot.disk.size(); ++i)
        dump_disk(snapshot.disk[i], cor_format("%s.disk[%zu]", name.c_str(), i), stream);
}

}  // namespace

void vmsd_dump_vmsddesc(const vmsddesc_t* vmsddesc, std::FILE* stream) {
    if (!vmsddesc) {
        std::fprintf(stream, "vmsddesc is NULL\n");
        return;
    }
    std::fprintf(stream, "vmsddesc.lastuid = %" PRId64 "\n", static_cast<std::int64_t>(vmsddesc->lastuid));
    std::fprintf(stream, "vmsddesc.numsnapshots = %d\n", vmsddesc->numsnapshots());
    std::fprintf(stream, "vmsddesc.currentuid = %" PRId64 "\n", static_cast<std::int64_t>(vmsddesc->currentuid));
    for (std::size_t i = 0; i < vmsddesc->snapshot.size(); ++i)
        if (vmsddesc->snapshot[i].magic != 0)
            dump_snapshot(vmsddesc->snapshot[i], cor_format("vmsddesc.snapshot[%zu]", i), stream);
}

}  // namespace mirador
