// SPDX-License-Identifier: Apache-2.0
// On-disk headers of sparse extents, little-endian: the hosted kind (SPARSE) and the copy-on-write kind of a
// hypervisor's datastore (VMFSSPARSE). A grain directory at `gdoffset` lists the sectors of the grain tables; a grain
// table lists the sectors of its grains; 0 means not allocated. Offsets and sizes are in 512-byte sectors.
#pragma once

#include <cstddef>
#include <cstdint>

namespace mirador {

#pragma pack(push, 1)

struct sparsehdr_t {
    static constexpr std::uint32_t magic_value = 0x564d444b;  // "KDMV"
    static constexpr std::uint32_t version_value = 1;

    std::uint32_t magic;
    std::uint32_t version;
    std::uint32_t flags;
    std::uint64_t capacity;
    std::uint64_t grainsize;
    std::uint64_t descoffset;  // embedded descriptor
    std::uint64_t descsize;
    std::uint32_t numgtespergt;  // entries of a grain table
    std::uint64_t rgdoffset;     // redundant grain directory
    std::uint64_t gdoffset;      // grain directory
    std::uint64_t overhead;      // metadata in front of the grains
    std::uint8_t uncleanshutdown;
    char singleendlinechar;  // these four show damage by a text-mode transfer
    char nonendlinechar;
    char doubleendlinechar1;
    char doubleendlinechar2;
    std::uint8_t pad[435];
};
static_assert(sizeof(sparsehdr_t) == 512);
static_assert(offsetof(sparsehdr_t, capacity) == 12 && offsetof(sparsehdr_t, grainsize) == 20);
static_assert(offsetof(sparsehdr_t, descoffset) == 28 && offsetof(sparsehdr_t, descsize) == 36);
static_assert(offsetof(sparsehdr_t, numgtespergt) == 44 && offsetof(sparsehdr_t, rgdoffset) == 48);
static_assert(offsetof(sparsehdr_t, gdoffset) == 56 && offsetof(sparsehdr_t, overhead) == 64);
static_assert(offsetof(sparsehdr_t, uncleanshutdown) == 72 && offsetof(sparsehdr_t, pad) == 77);

struct cowdiskhdr_t {
    static constexpr std::uint32_t magic_value = 0x44574f43;  // "COWD"
    static constexpr std::uint32_t version_value = 1;
    static constexpr std::uint32_t flags_value = 3;
    static constexpr std::uint32_t numgtespergt = 4096;  // entries of every grain table of this kind

    std::uint32_t magic;
    std::uint32_t version;
    std::uint32_t flags;
    std::uint32_t numsectors;  // capacity
    std::uint32_t grainsize;
    std::uint32_t gdoffset;
    std::uint32_t numgdentries;
    std::uint32_t freesector;
    std::uint8_t rest[2018];  // parent or geometry, names, generations: not used
};
static_assert(sizeof(cowdiskhdr_t) == 2050);
static_assert(offsetof(cowdiskhdr_t, numsectors) == 12 && offsetof(cowdiskhdr_t, gdoffset) == 20);
static_assert(offsetof(cowdiskhdr_t, freesector) == 28 && offsetof(cowdiskhdr_t, rest) == 32);

#pragma pack(pop)

}  // namespace mirador
