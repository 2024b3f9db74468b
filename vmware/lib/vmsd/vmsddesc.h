// SPDX-License-Identifier: Apache-2.0
// A VM's snapshot database as a record: its snapshots, their parents, and the disks that each of them froze.
//
// Texts are as the file writes them between the quotes: in its encoding, with its escapes ("|" and two hexadecimal
// digits stand for a byte).
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

namespace mirador {

struct vmsddisk_t {
    static constexpr std::uint32_t magic_value = 0xffffcccc;

    std::uint32_t magic = 0;  // magic_value once the file name is read
    std::uint32_t version = 0;
    std::optional<std::string> filename;
    std::optional<std::string> node;  // where the disk is attached: "scsi0:0"
};

struct vmsdsnapshot_t {
    static constexpr std::uint32_t magic_value = 0xffffccff;

    std::uint32_t magic = 0;  // magic_value once the uid is read; 0: the file never names this record
    std::uint32_t version = 0;
    std::uint64_t uid = 0;        // of a negative number the 64-bit complement
    std::uint64_t parentuid = 0;  // the same
    std::optional<std::string> filename;
    std::optional<std::string> displayname;
    std::optional<std::string> description;
    std::uint32_t createtimehigh = 0;  // the creation time's halves: microseconds since the epoch
    std::uint32_t createtimelow = 0;
    std::vector<vmsddisk_t> disk;  // as many as the file announces

    std::int32_t numdisks() const { return static_cast<std::int32_t>(disk.size()); }
};

struct vmsddesc_t {
    static constexpr std::uint32_t magic_value = 0xffffcfff;  // set while the record is open
    static constexpr std::uint32_t version_value = 1;

    std::uint32_t magic = 0;
    std::uint32_t version = 0;
    std::uint64_t lastuid = 0;
    std::uint64_t currentuid = 0;
    // By the number behind "snapshot" in the keys; one more than the file announces. Whoever walks them passes over
    // those whose magic is 0.
    std::vector<vmsdsnapshot_t> snapshot;
    std::string filename;          // the path that was opened; vmsd_open sets it
    std::string encoding;          // as declared; empty: not. vmsd_open sets it
    std::uint32_t lost_lines = 0;  // lines that vmsd_open passed over

    std::int32_t numsnapshots() const { return static_cast<std::int32_t>(snapshot.size()); }
};

// Prints the record for debugging, the snapshots that the file names only; "vmsddesc is NULL" for none.
void vmsd_dump_vmsddesc(const vmsddesc_t* vmsddesc, std::FILE* stream);

}  // namespace mirador
