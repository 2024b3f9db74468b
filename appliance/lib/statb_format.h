// SPDX-License-Identifier: Apache-2.0
// File attributes as the shadow tree's files store them: the 96-byte status record with 64-bit sizes of a 32-bit
// platform, little-endian, whatever the machine that reads it.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>

namespace mirador {

#pragma pack(push, 1)

struct cor_statb_t {
    std::uint64_t dev;
    std::uint32_t pad1;
    std::uint32_t short_ino;  // the low 32 bits of `ino`
    std::uint32_t mode;       // type and permission bits
    std::uint32_t nlink;
    std::uint32_t uid;
    std::uint32_t gid;
    std::uint64_t rdev;
    std::uint32_t pad2;
    std::int64_t size;  // bytes
    std::uint32_t blksize;
    std::uint64_t blocks;    // 512-byte blocks
    std::int32_t atime_sec;  // since the epoch
    std::uint32_t atime_nsec;
    std::int32_t mtime_sec;
    std::uint32_t mtime_nsec;
    std::int32_t ctime_sec;
    std::uint32_t ctime_nsec;
    std::uint64_t ino;
};
static_assert(sizeof(cor_statb_t) == 96);
static_assert(offsetof(cor_statb_t, dev) == 0 && offsetof(cor_statb_t, pad1) == 8);
static_assert(offsetof(cor_statb_t, short_ino) == 12 && offsetof(cor_statb_t, mode) == 16);
static_assert(offsetof(cor_statb_t, nlink) == 20 && offsetof(cor_statb_t, uid) == 24);
static_assert(offsetof(cor_statb_t, gid) == 28 && offsetof(cor_statb_t, rdev) == 32);
static_assert(offsetof(cor_statb_t, pad2) == 40 && offsetof(cor_statb_t, size) == 44);
static_assert(offsetof(cor_statb_t, blksize) == 52 && offsetof(cor_statb_t, blocks) == 56);
static_assert(offsetof(cor_statb_t, atime_sec) == 64 && offsetof(cor_statb_t, atime_nsec) == 68);
static_assert(offsetof(cor_statb_t, mtime_sec) == 72 && offsetof(cor_statb_t, mtime_nsec) == 76);
static_assert(offsetof(cor_statb_t, ctime_sec) == 80 && offsetof(cor_statb_t, ctime_nsec) == 84);
static_assert(offsetof(cor_statb_t, ino) == 88);

#pragma pack(pop)

// The record of a status. Values that the record's narrower fields cannot hold (times outside 1901 to 2038, link count,
// block size) become the nearest that they can.
cor_statb_t cor_statb_from_stat(const struct stat& st);

// The status of a record; padding and `short_ino` are dropped.
struct stat cor_statb_to_stat(const cor_statb_t& statb);

}  // namespace mirador
