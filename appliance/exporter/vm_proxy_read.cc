// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/vm_proxy_read.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "appliance/exporter/snapshot_thr.h"
#include "appliance/exporter/stats_thr.h"
#include "appliance/lib/registry.h"
#include "lib/cor_assert.h"
#include "lib/digest.h"

namespace mirador {
namespace {

constexpr int digest_debug_level = 4;  // above it every read buffer is digested

// What a read came to, in bytes.
struct read_counts_t {
    std::size_t delivered = 0;  // in the buffer
    // For the statistics; the device reader counts whole sectors.
    std::size_t read = 0;
    std::size_t skipped = 0;
};

errdesc_t* read_device(char* buf, std::size_t size, off_t offset, const fuse_fh_t& fh, read_counts_t* counts) {
    RETURN_IF_ERROR(optimize_byte_read(*fh.pdev, buf, size, offset, &counts->read, &counts->skipped));
    counts->delivered = cor_dev_room(*fh.pdev, size, offset);
    return nullptr;
}

// A device has all its bytes. Where it comes to its end before, what lies there cannot be read.
bool ends_early(const fuse_fh_t& fh, std::size_t size, off_t offset, std::size_t delivered) {
    const std::int64_t left = std::max<std::int64_t>(0, fh.device_size - offset);
    return delivered < std::min(size, static_cast<std::size_t>(left));
}

// Whether a template's disk is a VM's by now, which may have written what was just read of it.
bool is_vms_by_now(const fuse_fh_t& fh) {
    if (fh.template_shadow_path.empty() || fh.cookie->is_vms)
        return fh.cookie->is_vms;
    const errdesc_keeper_t keeper;
    std::unique_ptr<vm_proxy_header_t> now;
    if (vm_proxy_read_header_checked(fh.template_shadow_path, &now) == nullptr && now->type == fh.type &&
        fh.vm_uuid == now->vm_uuid && now->can_snapshot != 0)
        fh.cookie->is_vms = true;
    return fh.cookie->is_vms;
}

// The underlying bytes. Error: the source's number, with the text that is published for the source.
errdesc_t* read_source(char* buf, std::size_t size, off_t offset, const fuse_fh_t& fh, read_counts_t* counts) {
    if (fh.optimize && size > 0 && get_reg_settings()->smartread_optimize)
        return read_device(buf, size, offset, fh, counts);
    errdesc_t* e = cor_pread(fh.fd.get(), buf, size, offset, &counts->delivered);
    if (e != nullptr)
        return errdesc_set_extended_err(e->number, fh.extended_error_path);
    if (ends_early(fh, size, offset, counts->delivered))
        return errdesc_set_extended_err(EIO, fh.extended_error_path);
    counts->read = counts->delivered;
    return nullptr;
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
    if (fh->snapshot != nullptr)
        RETURN_IF_ERROR(fh->snapshot->check_not_lost());
    const bool digest = get_reg_settings()->debug_level > digest_debug_level;
    if (digest)
        std::memset(buf, 0, size);

    read_counts_t counts;
    errdesc_t* e = read_source(buf, size, offset, *fh, &counts);
    if (is_vms_by_now(*fh))
        return errdesc_set_fmt(ESTALE, "%s: opened as a template's disk, which is a virtual machine's by now",
                               fh->path.c_str());
    const std::size_t from_source = counts.delivered;
    apply_overlay(buf, size, offset, fh->buffered_data, &counts.delivered, &e);
    counts.read += counts.delivered - from_source;
    if (digest)
        DEBUG_digest_buf("vm_proxy_read", fh->path.c_str(), offset, static_cast<ssize_t>(counts.delivered), buf, e);
    if (e != nullptr)
        return e;
    if (fh->collect_stats && (counts.read >= 1 || counts.skipped >= 1))
        stats_thr_update_stats(fh->path, static_cast<std::int32_t>(counts.read),
                               static_cast<std::int32_t>(counts.skipped), fh->cbt_losetup);
    fh->cookie->external_read_bytes.fetch_add(counts.delivered, std::memory_order_relaxed);
    *bytes_read = counts.delivered;
    return nullptr;
}

errdesc_t* vm_proxy_read_whole(char* buf, std::size_t size, off_t offset, const fuse_fh_t* fh,
                               std::size_t* bytes_read) {
    RETURN_IF_ERROR(vm_proxy_read(buf, size, offset, fh, bytes_read));
    for (std::size_t got = *bytes_read; got > 0 && *bytes_read < size; *bytes_read += got)
        RETURN_IF_ERROR(
            vm_proxy_read(buf + *bytes_read, size - *bytes_read, offset + static_cast<off_t>(*bytes_read), fh, &got));
    return nullptr;
}

}  // namespace mirador
