// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/mbr.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "appliance/lib/cor_vdsk_header.h"
#include "lib/cor_assert.h"
#include "lib/file_io.h"

namespace mirador {
namespace {

constexpr std::size_t sector_bytes = 512;
using sector_buf_t = std::array<std::uint8_t, sector_bytes>;

// The LBA at which the first used entry begins; `no_sector` when none is used.
std::uint32_t first_partition_start(const mbr_t& mbr) {
    std::uint32_t start = no_sector;
    for (const part_table_entry_t& entry : mbr.partition) {
        const std::uint32_t lba = entry.first_sector_lba;
        if (entry.type != part_table_entry_t::type_unused)
            start = std::min(start, lba);
    }
    return start;
}

bool is_header(const sector_buf_t& sector) {
    cor_vdsk_header_t h;
    static_assert(sizeof h == sector_bytes);
    std::memcpy(&h, sector.data(), sizeof h);
    return is_cor_vdsk_header(h);
}

bool is_all_zero(const sector_buf_t& sector) {
    return std::all_of(sector.begin(), sector.end(), [](std::uint8_t byte) { return byte == 0; });
}

void dump_entry(const part_table_entry_t& entry, std::FILE* stream) {
    const std::uint32_t first = entry.first_sector_lba;
    const std::uint32_t last = entry.number_of_sectors == 0 ? first : first + entry.number_of_sectors - 1;
    const bool bootable = (entry.status & part_table_entry_t::status_bootable) != 0;
    std::fprintf(stream, "%s, type: %2x, LBA start %u (CHS %u/%u/%u), LBA last %u (CHS %u/%u/%u)\n",
                 bootable ? "    bootable" : "non-bootable", entry.type, first, entry.first_sector_chs.cylinder(),
                 unsigned{entry.first_sector_chs.head}, entry.first_sector_chs.sector(), last,
                 entry.last_sector_chs.cylinder(), unsigned{entry.last_sector_chs.head},
                 entry.last_sector_chs.sector());
}

}  // namespace

errdesc_t* read_sector(int fd, off_t offset, std::size_t* len, void* buf) {
    cor_assert(len != nullptr && buf != nullptr);
    return cor_pread(fd, buf, *len, offset, len);
}

errdesc_t* read_mbr(int fd, mbr_t* mbr) {
    std::size_t len = sizeof *mbr;
    RETURN_IF_ERROR(read_sector(fd, 0, &len, mbr));
    if (len < sizeof *mbr)
        return errdesc_set_fmt(ENODATA, "sector 0 has only %zu bytes", len);
    return nullptr;
}

bool is_valid_mbr(const mbr_t& mbr) {
    return mbr.mbr_signature == mbr_t::signature_value;
}

void dump_mbr(const mbr_t& mbr, std::FILE* stream) {
    std::fprintf(stream, "Disk Signature:      %x\n", mbr.disk_signature);
    int number = 0;
    for (const part_table_entry_t& entry : mbr.partition) {
        std::fprintf(stream, "Partition Table  #%d  :  ", ++number);
        dump_entry(entry, stream);
    }
}

bool is_sector_available(int fd, std::uint32_t sector) {
    sector_buf_t buf{};
    std::size_t len = buf.size();
    if (read_sector(fd, off_t{sector} * off_t{sector_bytes}, &len, buf.data()) != nullptr || len < buf.size())
        return false;
    return is_header(buf) || is_all_zero(buf);
}

errdesc_t* find_free_sector_by_partition(int fd, std::uint32_t* sector) {
    cor_assert(sector != nullptr);
    *sector = no_sector;
    mbr_t mbr{};
    RETURN_IF_ERROR(read_mbr(fd, &mbr));
    if (!is_valid_mbr(mbr))
        return errdesc_set_str(EIO, "unknown partition format");
    const std::uint32_t start = first_partition_start(mbr);
    if (start <= first_header_sector)
        return errdesc_set_fmt(EIO, "partition start at %u, sectors %u to %u are not available", start,
                               first_header_sector, last_header_sector);
    for (std::uint32_t s = first_header_sector; s <= last_header_sector && s < start; s++) {
        if (is_sector_available(fd, s)) {
            *sector = s;
            return nullptr;
        }
    }
    return errdesc_set_fmt(EIO, "Cannot find any empty sector between %u-%u", first_header_sector, last_header_sector);
}

}  // namespace mirador
