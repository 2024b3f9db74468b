// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/vm_proxy_read.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "appliance/exporter/stats_thr.h"
#include "appliance/lib/registry.h"
#include "lib/cor_assert.h"
#include "lib/digest.h"

namespace mirador {
namespace {

constexpr int digest_debug_level = 4;  // above it every read buffer is digested

// The underlying bytes. Error: the source's number, with the text that is published for the source.
errdesc_t* read_source(char* buf, std::size_t size, off_t offset, const fuse_fh_t& fh, std::size_t* count) {
    errdesc_t* e = cor_pread(fh.fd.get(), buf, size, offset, count);
    return e == nullptr ? nullptr : errdesc_set_extended_err(e->number, fh.extended_error_path);
}

// Lays the overlay over a read of `size` bytes at `offset`, of which *count were read; *e is the source's failure and
// is dropped where the overlay begins at or before the read. What lacks between the source's end and the overlay (a
// file that became shorter) reads as zeros.
void apply_overlay(char* buf, std::size_t size, off_t offset, const fuse_fh_buffer_t& overlay, std::size_t* count,
                   errdesc_t** e) {
    if (overlay.buffer.empty())
        return;
    const auto length = static_cast<std::int64_t>(overlay.buffer.size());
    const auto room = static_cast<std::int64_t>(size);
    const std::int64_t ahead = overlay.offset - offset;  // the sum of an offset and a size may overflow
    if (room < ahead || length <= -ahead)
        return;
    if (*e != nullptr && ahead > 0)
        return;
    const std::int64_t to = std::max<std::int64_t>(0, ahead);
    const std::int64_t from = std::max<std::int64_t>(0, -ahead);
    const std::int64_t copied = std::min(room - to, length - from);
    std::memcpy(buf + to, overlay.buffer.data() + from, static_cast<std::size_t>(copied));
    if (*e != nullptr) {
        *e = nullptr;
        *count = 0;
    }
    const auto start = static_cast<std::size_t>(to);
    if (*count < start)
        std::memset(buf + *count, 0, start - *count);
    *count = std::max(*count, static_cast<std::size_t>(to + copied));
}

}  // namespace

errdesc_t* vm_proxy_read(char* buf, std::size_t size, off_t offset, const fuse_fh_t* fh, std::size_t* bytes_read) {
    cor_assert(buf != nullptr);
    cor_assert(bytes_read != nullptr);
    if (fh == nullptr)
        return errdesc_set(ESTALE);
    cor_assert(fh->magic == fuse_fh_t::magic_value);
    cor_assert(fh->version == fuse_fh_t::version_value);
    const bool digest = get_reg_settings()->debug_level > digest_debug_level;
    if (digest)
        std::memset(buf, 0, size);

    std::size_t count = 0;
    errdesc_t* e = read_source(buf, size, offset, *fh, &count);
    apply_overlay(buf, size, offset, fh->buffered_data, &count, &e);
    count = std::min(count, size);
    if (digest)
        DEBUG_digest_buf("vm_proxy_read", fh->path.c_str(), offset, static_cast<ssize_t>(count), buf, e);
    if (e != nullptr)
        return e;
    if (fh->collect_stats && count >= 1)
        stats_thr_update_stats(fh->path, static_cast<std::int32_t>(count), 0, fh->cbt_losetup);
    fh->cookie->external_read_bytes.fetch_add(count, std::memory_order_relaxed);
    *bytes_read = count;
    return nullptr;
}

}  // namespace mirador
