// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/vm_proxy_touch.h"

#include <sys/stat.h>

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <memory>

#include "appliance/exporter/controller_thr.h"
#include "appliance/exporter/vm_proxy_remove.h"
#include "appliance/lib/registry.h"
#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/log.h"

namespace mirador {
namespace {

constexpr int dump_debug_level = 2;  // above it old and new header are dumped

errdesc_t* check_fits(const std::string& text, std::size_t room) {
    return text.size() < room ? nullptr : errdesc_set_str(EINVAL, text);
}

// What the export reports as size of a flat disk, and whether it may be read through the optimised path.
void set_flat_size(const vm_proxy_touch_t& touch, vm_proxy_header_t* header) {
    const std::int64_t actual = header->statb.size;
    if (touch.is_delta || actual <= touch.size) {
        header->statb.size = touch.size;
        header->can_optimize = 1;
        return;
    }
    _errdesc_log(errdesc_set_fmt(EFBIG,
                                 "Extent file %s has actual size %jd larger than size %jd defined in the disk "
                                 "descriptor file",
                                 touch.stat_path.c_str(), static_cast<std::intmax_t>(actual),
                                 static_cast<std::intmax_t>(touch.size)),
                 ERRDESC_WARNING);
}

void set_corcbt_size(const vm_proxy_touch_t& touch, vm_proxy_header_t* header) {
    header->statb.size = touch.size;
    if (get_reg_settings()->cbt_debug_enabled)
        ts_printf("vm_proxy_touch_intern corcbt size: %jd\n", static_cast<std::intmax_t>(touch.size));
}

// The header that stands in the shadow tree now; null if there is none. One that cannot be used is replaced.
std::unique_ptr<vm_proxy_header_t> read_old_header(const std::string& shadow_path) {
    std::unique_ptr<vm_proxy_header_t> header;
    errdesc_t* e = vm_proxy_read_header_checked(shadow_path, &header);
    if (e != nullptr && e->number != ENOENT)
        _errdesc_log(e, ERRDESC_WARNING);
    return header;
}

// Whether writing it would change nothing; most updates of most VMs find everything as it was.
bool is_same(const vm_proxy_header_t& a, const vm_proxy_header_t& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

errdesc_t* fill_header(const vm_proxy_touch_t& touch, vm_proxy_header_t* header) {
    struct stat st {};
    if (stat(touch.stat_path.c_str(), &st) != 0)
        return errdesc_set_extended_err(errno, touch.stat_path);
    if (!S_ISREG(st.st_mode))  // clients would wait for a FIFO
        return errdesc_set_fmt(EINVAL, "%s: not a regular file", touch.stat_path.c_str());
    header->statb = cor_statb_from_stat(st);
    if (touch.type == VM_PROXY_HEADER_VMDK_FLAT)
        set_flat_size(touch, header);
    else if (touch.type == VM_PROXY_HEADER_VMDK_CORCBT)
        set_corcbt_size(touch, header);
    if (touch.mtime) {
        header->statb.mtime_sec = static_cast<std::int32_t>(*touch.mtime);
        header->statb.mtime_nsec = 0;
    }
    header->statb.blocks = proxy_header_blocks(header->statb.size);
    header->can_snapshot = touch.is_template ? 0 : 1;
    cor_safe_strncpy(header->path, touch.link_path.c_str(), sizeof header->path);
    cor_safe_strncpy(header->vm_uuid, touch.vm_uuid.c_str(), sizeof header->vm_uuid);
    cor_safe_strncpy(header->hv_name, touch.hv_name.c_str(), sizeof header->hv_name);
    return nullptr;
}

}  // namespace

errdesc_t* vm_proxy_touch_check(const vm_proxy_touch_t& touch) {
    RETURN_IF_ERROR(check_fits(touch.link_path, sizeof(vm_proxy_header_t::path)));
    RETURN_IF_ERROR(check_fits(touch.vm_uuid, sizeof(vm_proxy_header_t::vm_uuid)));
    RETURN_IF_ERROR(check_fits(touch.hv_name, sizeof(vm_proxy_header_t::hv_name)));
    if (touch.type <= VM_PROXY_HEADER_UNKNOWN || touch.type > VM_PROXY_HEADER_CFG || touch.size < 0)
        return errdesc_set_str(EINVAL, touch.link_path);
    return nullptr;
}

errdesc_t* vm_proxy_touch(const std::string& shadow_path, const vm_proxy_touch_t& touch) {
    cor_assert(vm_proxy_touch_check(touch) == nullptr);
    vm_proxy_header_t header = vm_proxy_header_make(touch.type);
    RETURN_IF_ERROR(fill_header(touch, &header));
    const mutex_lock_t lock(vm_proxy_count_mutex());
    const std::unique_ptr<vm_proxy_header_t> old = read_old_header(shadow_path);
    if (old != nullptr && touch.keep_mtime) {
        header.statb.mtime_sec = old->statb.mtime_sec;
        header.statb.mtime_nsec = old->statb.mtime_nsec;
    }
    if (get_debug_level() > dump_debug_level) {
        if (old != nullptr)
            vm_proxy_header_dump("Old proxy header", *old);
        vm_proxy_header_dump("New proxy header", header);
    }
    if (old != nullptr && is_same(*old, header))
        return nullptr;
    RETURN_IF_ERROR(vm_proxy_write_header(header, shadow_path));
    if (old != nullptr)
        dec_fs_blocks_used(static_cast<std::int64_t>(old->statb.blocks));
    inc_fs_blocks_used(static_cast<std::int64_t>(header.statb.blocks));
    return nullptr;
}

}  // namespace mirador
