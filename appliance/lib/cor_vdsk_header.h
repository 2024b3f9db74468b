// SPDX-License-Identifier: Apache-2.0
// The virtual disk header: a 512-byte, little-endian record that an exported flat disk shows in one free sector near
// its start, so that a backup copy of the disk carries its own description: disk, VM, datastore, change id, snapshot
// time and names. A sector is such a header if and only if both magic words match; everything else in it may be
// anything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string_view>

#include "lib/cor_uuid.h"
#include "lib/errdesc.h"

namespace mirador {

enum cor_vdsk_type_t : std::uint8_t { COR_VDSK_VMDK = 1, COR_VDSK_VHD = 2 };

// Bits of cor_vdsk_header_t::attributes.
enum cor_vdsk_attribute_t : std::uint8_t {
    COR_VDSK_CBT_ENABLED = 1,
    COR_VDSK_THIN = 2,
    COR_VDSK_WRITE_THROUGH = 4,
    COR_VDSK_SPLIT = 8,
    COR_VDSK_EAGERLY_SCRUB = 16,
    COR_VDSK_PERSISTENT = 32,
};

#pragma pack(push, 1)

// The part of the record that differs between its versions. `varstrings` holds up to four texts, each with its
// terminator: the disk's directory inside its datastore, the datastore's name, the hypervisor's name, the VM's name.
struct cor_vdsk_tail_v1_t {
    std::uint16_t change_suffix;  // the number after the change id's last slash
    std::uint32_t snapshot_time;  // seconds since the epoch
    char varstrings[422];
};
static_assert(sizeof(cor_vdsk_tail_v1_t) == 428);
static_assert(offsetof(cor_vdsk_tail_v1_t, change_suffix) == 0 && offsetof(cor_vdsk_tail_v1_t, snapshot_time) == 2);
static_assert(offsetof(cor_vdsk_tail_v1_t, varstrings) == 6);

struct cor_vdsk_tail_v2_t {
    std::uint32_t change_suffix;
    std::uint32_t snapshot_time;
    char varstrings[420];
};
static_assert(sizeof(cor_vdsk_tail_v2_t) == 428);
static_assert(offsetof(cor_vdsk_tail_v2_t, change_suffix) == 0 && offsetof(cor_vdsk_tail_v2_t, snapshot_time) == 4);
static_assert(offsetof(cor_vdsk_tail_v2_t, varstrings) == 8);

struct cor_vdsk_header_t {
    static constexpr std::uint32_t magic_value = 0x4844564b;  // "KVDH"
    static constexpr std::uint8_t version_1 = 1;
    static constexpr std::uint8_t version_2 = 2;  // of every new header

    std::uint32_t magic_begin;
    std::uint8_t version;
    std::uint8_t type;        // cor_vdsk_type_t
    std::uint32_t cid;        // the disk's content id
    std::uint32_t size;       // 512-byte sectors, modulo 2^32
    std::uint8_t attributes;  // cor_vdsk_attribute_t bits
    std::uint8_t createtype;  // numbered as createtype_t
    cor_uuid_t disk_uuid;
    cor_uuid_t vm_uuid;
    cor_uuid_t ds_uuid;    // of the datastore
    cor_uuid_t change_id;  // the change id without its suffix
    union {
        cor_vdsk_tail_v1_t v1;
        cor_vdsk_tail_v2_t v2;
    } tail;
    std::uint32_t magic_end;
};
static_assert(sizeof(cor_vdsk_header_t) == 512);
static_assert(offsetof(cor_vdsk_header_t, magic_begin) == 0 && offsetof(cor_vdsk_header_t, version) == 4);
static_assert(offsetof(cor_vdsk_header_t, type) == 5 && offsetof(cor_vdsk_header_t, cid) == 6);
static_assert(offsetof(cor_vdsk_header_t, size) == 10 && offsetof(cor_vdsk_header_t, attributes) == 14);
static_assert(offsetof(cor_vdsk_header_t, createtype) == 15 && offsetof(cor_vdsk_header_t, disk_uuid) == 16);
static_assert(offsetof(cor_vdsk_header_t, vm_uuid) == 32 && offsetof(cor_vdsk_header_t, ds_uuid) == 48);
static_assert(offsetof(cor_vdsk_header_t, change_id) == 64 && offsetof(cor_vdsk_header_t, tail) == 80);
static_assert(offsetof(cor_vdsk_header_t, magic_end) == 508);

#pragma pack(pop)

// A zeroed record of version 2 with both magic words.
std::unique_ptr<cor_vdsk_header_t> new_cor_vdsk_header();

// Frees *h, which may be null, and sets it to null.
void destroy_cor_vdsk_header(std::unique_ptr<cor_vdsk_header_t>* h);

// Whether both magic words match.
bool is_cor_vdsk_header(const cor_vdsk_header_t& h);

// The number after the change id's last slash and the snapshot's time (seconds since the epoch), from where the
// record's version has them; 0 for an unknown version.
std::uint32_t cor_vdsk_change_suffix(const cor_vdsk_header_t& h);
std::uint32_t cor_vdsk_snapshot_time(const cor_vdsk_header_t& h);

// "monolithic sparse" and so on; "unsupported" for numbers without a name.
const char* cor_vdsk_createtype_str(std::uint8_t createtype);

// Stores texts 0 to 3 one after another; a null text ends the list. False when they did not all fit: what fits is
// stored, the last text possibly without a terminator. The room is counted by the texts' lengths without their
// terminators, as headers always were written; no byte lands beyond the area. True without doing anything for an
// unknown version.
[[nodiscard]] bool set_vmdk_variable_strings(cor_vdsk_header_t* h, const char* s0, const char* s1, const char* s2,
                                             const char* s3);

// Texts 0 to 3; an output may be null, the view behind one must be empty-pointed (asserted). The views point into the
// record and end with its area at the latest. False when a wanted text is not there; its view then lies on the area's
// last byte. True without output for an unknown version.
[[nodiscard]] bool get_vmdk_variable_strings(const cor_vdsk_header_t& h, std::string_view* s0, std::string_view* s1,
                                             std::string_view* s2, std::string_view* s3);

// Reads the header of a disk from the sector where an export puts it. Errors: those of find_free_sector_by_partition
// and read_sector; ENODATA (61) with "The data is not a valid recover header" when the sector holds none.
[[nodiscard]] errdesc_t* read_cor_vdsk_header(int fd, cor_vdsk_header_t* h);

// Prints a header for a person; any 512 bytes may be printed.
void dump_cor_vdsk_header(const cor_vdsk_header_t& h, std::FILE* stream = stdout);

}  // namespace mirador
