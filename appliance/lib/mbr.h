// SPDX-License-Identifier: Apache-2.0
// The master boot record of a disk, and the search for a sector behind it that nothing uses. All numbers are
// little-endian; LBA values are in 512-byte sectors. The functions take a descriptor open for reading, leave its
// position alone and may run on any thread.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "lib/errdesc.h"

namespace mirador {

#pragma pack(push, 1)

// Cylinder, head and sector of a partition's end.
struct chs_t {
    std::uint8_t head;
    std::uint8_t sector_and_high;  // sector in bits 0 to 5, bits 8 and 9 of the cylinder above
    std::uint8_t cylinder_low;

    unsigned sector() const { return sector_and_high & 0x3fU; }
    unsigned cylinder() const { return ((sector_and_high & 0xc0U) << 2) | cylinder_low; }
};
static_assert(sizeof(chs_t) == 3);

struct part_table_entry_t {
    static constexpr std::uint8_t status_bootable = 0x80;
    static constexpr std::uint8_t type_unused = 0;

    std::uint8_t status;
    chs_t first_sector_chs;
    std::uint8_t type;
    chs_t last_sector_chs;
    std::uint32_t first_sector_lba;
    std::uint32_t number_of_sectors;
};
static_assert(sizeof(part_table_entry_t) == 16);
static_assert(offsetof(part_table_entry_t, status) == 0 && offsetof(part_table_entry_t, first_sector_chs) == 1);
static_assert(offsetof(part_table_entry_t, type) == 4 && offsetof(part_table_entry_t, last_sector_chs) == 5);
static_assert(offsetof(part_table_entry_t, first_sector_lba) == 8);
static_assert(offsetof(part_table_entry_t, number_of_sectors) == 12);

struct mbr_t {
    static constexpr std::uint16_t signature_value = 0xAA55;

    std::uint8_t code[440];
    std::uint32_t disk_signature;
    std::uint16_t unused;
    part_table_entry_t partition[4];
    std::uint16_t mbr_signature;
};
static_assert(sizeof(mbr_t) == 512);
static_assert(offsetof(mbr_t, code) == 0 && offsetof(mbr_t, disk_signature) == 440);
static_assert(offsetof(mbr_t, unused) == 444 && offsetof(mbr_t, partition) == 446);
static_assert(offsetof(mbr_t, mbr_signature) == 510);

#pragma pack(pop)

// The sectors among which a free one is searched, both included.
inline constexpr std::uint32_t first_header_sector = 2;
inline constexpr std::uint32_t last_header_sector = 16;
inline constexpr std::uint32_t no_sector = 0xffffffff;

// Reads up to *len bytes at `offset` (bytes) into `buf`. *len becomes what was there: less at the end of the file,
// which is no error. Error: errno of the failed read.
[[nodiscard]] errdesc_t* read_sector(int fd, off_t offset, std::size_t* len, void* buf);

// Reads sector 0. Errors: those of read_sector; ENODATA (61) when the file is shorter than a sector.
[[nodiscard]] errdesc_t* read_mbr(int fd, mbr_t* mbr);

// Whether the record carries its signature.
bool is_valid_mbr(const mbr_t& mbr);

// Prints the disk signature and the four entries.
void dump_mbr(const mbr_t& mbr, std::FILE* stream = stdout);

// Whether a sector may take a virtual disk header: it already holds one, or nothing but zeros. One that cannot be read
// in full may not.
bool is_sector_available(int fd, std::uint32_t sector);

// The first available sector between `first_header_sector` and `last_header_sector` that lies in front of every
// partition. On error *sector is `no_sector`. Errors: those of read_mbr; EIO (5) with "unknown partition format" when
// sector 0 is no master boot record, with "partition start at <n>, …" when the first partition leaves no room, and with
// "Cannot find any empty sector …" when all are in use.
[[nodiscard]] errdesc_t* find_free_sector_by_partition(int fd, std::uint32_t* sector);

}  // namespace mirador
