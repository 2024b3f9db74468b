// SPDX-License-Identifier: Apache-2.0
// Any disk in the place of one that a virtual disk header is to be laid over: whatever sector is found, nothing of the
// guest's may lie in it. The input is looked at here byte by byte, without the module's records.
#include <algorithm>
#include <cstring>

#include "appliance/lib/mbr.h"
#include "tests/fuzz/memory_file.h"

using namespace mirador;

namespace {

constexpr std::size_t sector_bytes = 512;

// Whether any used entry of the partition table begins at or before `sector`.
bool inside_partition(const std::uint8_t* disk, std::uint32_t sector) {
    for (std::size_t entry = 446; entry < 510; entry += 16) {
        std::uint32_t lba = 0;
        std::memcpy(&lba, disk + entry + 8, sizeof lba);
        if (disk[entry + 4] != 0 && lba <= sector)
            return true;
    }
    return false;
}

bool is_free(const std::uint8_t* disk, std::size_t size, std::uint32_t sector) {
    const std::size_t begin = sector * sector_bytes;
    if (size < begin + sector_bytes)
        return false;
    const bool header = std::memcmp(disk + begin, "KVDH", 4) == 0 && std::memcmp(disk + begin + 508, "KVDH", 4) == 0;
    return header || std::all_of(disk + begin, disk + begin + sector_bytes, [](std::uint8_t b) { return b == 0; });
}

std::uint32_t expected(const std::uint8_t* disk, std::size_t size) {
    if (size < sector_bytes || disk[510] != 0x55 || disk[511] != 0xAA)
        return no_sector;
    for (std::uint32_t sector = 2; sector <= 16; sector++)
        if (!inside_partition(disk, sector) && is_free(disk, size, sector))
            return sector;
    return no_sector;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static memory_file_t file;
    file.fill(data, size);
    std::uint32_t sector = 0;
    const errdesc_t* e = find_free_sector_by_partition(file.fd(), &sector);
    cor_assert((e != nullptr) == (sector == no_sector));
    cor_assert(sector == expected(data, size));
    mbr_t mbr;
    if (!read_mbr(file.fd(), &mbr))
        dump_mbr(mbr, null_stream());
    return 0;
}
