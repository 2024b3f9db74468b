// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/statb_format.h"

#include <limits>
#include <utility>

namespace mirador {
namespace {

// The value of `To` nearest to `value`.
template <typename To, typename From>
To nearest(From value) {
    if (std::cmp_less(value, std::numeric_limits<To>::min()))
        return std::numeric_limits<To>::min();
    if (std::cmp_greater(value, std::numeric_limits<To>::max()))
        return std::numeric_limits<To>::max();
    return static_cast<To>(value);
}

timespec time_of(std::int32_t sec, std::uint32_t nsec) {
    return {.tv_sec = sec, .tv_nsec = static_cast<long>(nsec)};
}

}  // namespace

cor_statb_t cor_statb_from_stat(const struct stat& st) {
    cor_statb_t statb{};
    statb.dev = st.st_dev;
    statb.short_ino = static_cast<std::uint32_t>(st.st_ino);
    statb.mode = st.st_mode;
    statb.nlink = nearest<std::uint32_t>(st.st_nlink);
    statb.uid = st.st_uid;
    statb.gid = st.st_gid;
    statb.rdev = st.st_rdev;
    statb.size = st.st_size;
    statb.blksize = nearest<std::uint32_t>(st.st_blksize);
    statb.blocks = nearest<std::uint64_t>(st.st_blocks);
    statb.atime_sec = nearest<std::int32_t>(st.st_atim.tv_sec);
    statb.atime_nsec = static_cast<std::uint32_t>(st.st_atim.tv_nsec);
    statb.mtime_sec = nearest<std::int32_t>(st.st_mtim.tv_sec);
    statb.mtime_nsec = static_cast<std::uint32_t>(st.st_mtim.tv_nsec);
    statb.ctime_sec = nearest<std::int32_t>(st.st_ctim.tv_sec);
    statb.ctime_nsec = static_cast<std::uint32_t>(st.st_ctim.tv_nsec);
    statb.ino = st.st_ino;
    return statb;
}

struct stat cor_statb_to_stat(const cor_statb_t& statb) {
    struct stat st = {};
    st.st_dev = statb.dev;
    st.st_ino = statb.ino;
    st.st_mode = statb.mode;
    st.st_nlink = statb.nlink;
    st.st_uid = statb.uid;
    st.st_gid = statb.gid;
    st.st_rdev = statb.rdev;
    st.st_size = statb.size;
    st.st_blksize = statb.blksize;
    const std::uint64_t blocks = statb.blocks;
    st.st_blocks = nearest<blkcnt_t>(blocks);
    st.st_atim = time_of(statb.atime_sec, statb.atime_nsec);
    st.st_mtim = time_of(statb.mtime_sec, statb.mtime_nsec);
    st.st_ctim = time_of(statb.ctime_sec, statb.ctime_nsec);
    return st;
}

}  // namespace mirador
