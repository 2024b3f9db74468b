// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/vm_proxy_api.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "appliance/exporter/cbt_device.h"
#include "appliance/exporter/cbt_open.h"
#include "appliance/exporter/export_names.h"
#include "appliance/exporter/runtime_alerts.h"
#include "appliance/exporter/snapshot_thr.h"
#include "appliance/exporter/stats_thr.h"
#include "appliance/exporter/vm_proxy_attr.h"
#include "appliance/exporter/vm_proxy_evict.h"
#include "appliance/exporter/vm_proxy_open.h"
#include "appliance/lib/registry.h"
#include "lib/clock.h"
#include "lib/cor_assert.h"
#include "lib/error_hash.h"
#include "lib/fault_point.h"
#include "lib/fs_info.h"
#include "lib/log.h"

namespace mirador {
namespace {

// The cookie of a path that is the export name of a file, or its loop-file name; both paths become the export's.
errdesc_t* get_cookie_by_any_name(std::string* path, std::string* shadow_path, cookie_ptr* cookie) {
    errdesc_t* e = vm_proxy_get_cookie(*path, *shadow_path, cookie);
    if (e == nullptr)
        return nullptr;
    std::string export_path;
    std::string export_shadow;
    if (!losetup_paths_to_export(*path, *shadow_path, &export_path, &export_shadow))
        return e;
    *path = export_path;
    *shadow_path = export_shadow;
    return vm_proxy_get_cookie(*path, *shadow_path, cookie);
}

errdesc_t* open_by_type(vm_proxy_cookie_t& cookie, bool by_losetup_name, unique_fd* fd) REQUIRES(cookie.mutex) {
    switch (cookie.header.type) {
        case VM_PROXY_HEADER_VMDK_FLAT:
            return vm_proxy_open_vmdk_flat(cookie, by_losetup_name, fd);
        case VM_PROXY_HEADER_VMDK_ASCII:
        case VM_PROXY_HEADER_VMX:
            return vm_proxy_open_real_file(cookie, fd);
        case VM_PROXY_HEADER_CFG:
            return vm_proxy_open_cfg_file(cookie, fd);
        case VM_PROXY_HEADER_VMDK_CORCBT:
            return vm_proxy_open_corcbt_file(cookie, fd);
        default:
            cor_assert_failed("type is a known header type", __FILE__, __LINE__, __func__);
    }
}

bool is_disk(const vm_proxy_cookie_t& cookie) REQUIRES(cookie.mutex) {
    return cookie.header.type == VM_PROXY_HEADER_VMDK_FLAT || cookie.header.type == VM_PROXY_HEADER_VMDK_CORCBT;
}

// The path whose extended attributes tell the real error of a failed read.
std::string extended_error_path(const vm_proxy_cookie_t& cookie) REQUIRES(cookie.mutex) {
    const vdskdesc_t* disk = cookie.cbt != nullptr ? &cookie.cbt->vdskdesc : cookie.vdskdesc.get();
    if (disk != nullptr && !disk->vdsk_extent_path.empty())
        return disk->vdsk_extent_path;
    return cookie.header.path;
}

// Opens the device reader of a disk that may have one. Without one the disk is read plainly until it is evicted.
void open_pdev(vm_proxy_cookie_t& cookie) REQUIRES(cookie.mutex) {
    vm_proxy_header_t& header = cookie.header;
    if (header.type != VM_PROXY_HEADER_VMDK_FLAT || header.can_optimize == 0 || cookie.pdev != nullptr)
        return;
    if (errdesc_t* e = fault_point("open.pdev"))
        _errdesc_log(e, ERRDESC_ERROR);
    else
        cookie.pdev = cor_dev_open(cookie.devicemapper_path, extended_error_path(cookie));
    if (cookie.pdev == nullptr)
        header.can_optimize = 0;
}

bool is_template_disk(const vm_proxy_header_t& header) {
    return header.type == VM_PROXY_HEADER_VMDK_FLAT && header.can_snapshot == 0;
}

std::unique_ptr<fuse_fh_t> fuse_fh_new(unique_fd fd, const cookie_ptr& shared, const vm_proxy_cookie_t& cookie)
    REQUIRES(cookie.mutex) {
    auto fh = std::make_unique<fuse_fh_t>();
    fh->fd = std::move(fd);
    fh->buffered_data = cookie.buffered_data;
    fh->collect_stats = is_disk(cookie);
    fh->path = cookie.path;
    fh->extended_error_path = extended_error_path(cookie);
    fh->snapshot = cookie.snapshot;
    fh->vdskdesc = cookie.vdskdesc;
    fh->cbt = cookie.cbt;
    fh->direct_io = cookie.header.type != VM_PROXY_HEADER_VMDK_FLAT;
    fh->pdev = cookie.pdev;
    fh->optimize = fh->pdev != nullptr;
    fh->attributes = vm_proxy_header_attr(cookie.header, cookie.path);
    fh->type = cookie.header.type;
    fh->vm_uuid = cookie.header.vm_uuid;
    if (is_template_disk(cookie.header))
        fh->template_shadow_path = cookie.shadow_path;
    fh->device_size = is_disk(cookie) ? lseek(fh->fd.get(), 0, SEEK_END) : -1;
    fh->cookie = shared;
    return fh;
}

bool is_same_file(const cor_statb_t& one, const cor_statb_t& other) {
    return one.dev == other.dev && one.ino == other.ino;
}

// Whether the path belongs to another VM by now, or leads to another file. A disk of a VM that can be snapshotted is
// served from its snapshot, whatever becomes of the VM's own files meanwhile, and so is what changed on a disk; but it
// must be as long as is told. What was opened of a template has no snapshot, which it needs once it is a VM.
bool leads_elsewhere(vm_proxy_cookie_t& cookie) REQUIRES(cookie.mutex) {
    const errdesc_keeper_t keep;
    std::unique_ptr<vm_proxy_header_t> now;
    if (cookie.is_vms)
        return true;
    if (vm_proxy_read_header_checked(cookie.shadow_path, &now) != nullptr)
        return false;
    const vm_proxy_header_t then = cookie.header;
    if (now->type != then.type || std::strcmp(now->vm_uuid, then.vm_uuid) != 0)
        return true;
    if (is_template_disk(then) && now->can_snapshot != 0) {
        cookie.is_vms = true;
        return true;
    }
    if (then.type == VM_PROXY_HEADER_VMDK_CORCBT)
        return now->statb.size != then.statb.size;
    if (then.type == VM_PROXY_HEADER_VMDK_FLAT && then.can_snapshot != 0)
        return false;
    return std::strcmp(now->path, then.path) != 0 || !is_same_file(now->statb, then.statb);
}

// Whether somebody else has removed the snapshot below: the VM writes to what was frozen. That below a changed-block
// file is its flat disk's, which it holds open.
bool has_lost_snapshot(const vm_proxy_cookie_t& cookie) REQUIRES(cookie.mutex) {
    if (cookie.cbt != nullptr)
        return snapshot_is_gone(cookie.header.hv_name, cookie.header.vm_uuid);
    return cookie.snapshot != nullptr && cookie.snapshot->is_gone();
}

// Takes a cookie out of the table for good, with all that it holds.
void discard(vm_proxy_cookie_t& cookie) REQUIRES(cookie.mutex) {
    const errdesc_keeper_t keep;
    vm_proxy_remove_cookie(cookie);
    if (errdesc_t* e = vm_proxy_do_evict(cookie, false))
        _errdesc_log(e, ERRDESC_ERROR);
}

// Discards a cookie that nobody may open any more. A flat disk that is open stays, as what was opened is in use;
// readers of a changed-block file keep what they have beside a newer one.
errdesc_t* give_up(vm_proxy_cookie_t& cookie) REQUIRES(cookie.mutex) {
    const bool stays = cookie.ref > 0 && cookie.header.type == VM_PROXY_HEADER_VMDK_FLAT;
    if (stays && has_lost_snapshot(cookie))
        return errdesc_set_fmt(ESTALE, "%s: the snapshot that it is read from is no longer there", cookie.path.c_str());
    if (stays && cookie.is_vms)
        return errdesc_set_fmt(EBUSY, "%s: it is still open as a template's disk", cookie.path.c_str());
    if (stays)
        return errdesc_set_fmt(EBUSY, "%s: another disk is still open under this path", cookie.path.c_str());
    discard(cookie);
    return nullptr;
}

// Opens on one cookie. *retry: it has left the table, and the path has another one or needs one.
errdesc_t* open_cookie(const cookie_ptr& shared, bool by_losetup_name, std::unique_ptr<fuse_fh_t>* fh, bool* retry) {
    vm_proxy_cookie_t& cookie = *shared;
    const mutex_lock_t lock(cookie.mutex);
    *retry = cookie.detached;
    if (*retry)
        return nullptr;
    *retry = leads_elsewhere(cookie) || has_lost_snapshot(cookie);
    if (*retry)
        return give_up(cookie);
    cookie.ref++;
    cookie.stamp = clock_now();
    unique_fd fd;
    errdesc_t* e = open_by_type(cookie, by_losetup_name, &fd);
    if (e != nullptr) {
        discard(cookie);
        return e;
    }
    cookie.publish_info();
    open_pdev(cookie);
    *fh = fuse_fh_new(std::move(fd), shared, cookie);
    return nullptr;
}

errdesc_t* open_locked(std::string* path, std::string* shadow_path, std::unique_ptr<fuse_fh_t>* fh) {
    const std::string name = *path;
    cookie_ptr cookie;
    bool retry = true;
    while (retry) {
        RETURN_IF_ERROR(get_cookie_by_any_name(path, shadow_path, &cookie));
        RETURN_IF_ERROR(open_cookie(cookie, *path != name, fh, &retry));
    }
    return nullptr;
}

// By any of its names, and with all that a failure has behind it.
errdesc_t* open_file(const std::string& path, const std::string& shadow_path, std::unique_ptr<fuse_fh_t>* fh) {
    const mutex_lock_t lock(vm_proxy_open_list().mutex);
    std::string export_path = path;
    std::string export_shadow = shadow_path;
    errdesc_t* e = open_locked(&export_path, &export_shadow, fh);
    if (e == nullptr) {
        (*fh)->cbt_losetup = export_path != path && (*fh)->cbt == nullptr;
        (*fh)->attributes.st_ino = fs_ino_hash(path);
        return nullptr;
    }
    _errdesc_log(e, ERRDESC_ERROR);
    error_hash_save(export_path, e);
    raise_runtime_alert(export_path, export_shadow, e);
    return errdesc_set_str(ENOENT, path);
}

}  // namespace

errdesc_t* vm_proxy_open(const std::string& path, const std::string& shadow_path, std::unique_ptr<fuse_fh_t>* fh) {
    if (!is_corcbt_name(path))
        return open_file(path, shadow_path, fh);
    const bool debug = get_reg_settings()->cbt_debug_enabled;
    if (debug)
        ts_printf("vm_proxy_open locking corcbt_mutex\n");
    const mutex_lock_t lock(vm_proxy_open_list().corcbt_mutex);
    if (debug)
        ts_printf("vm_proxy_open have corcbt_mutex\n");
    return open_file(path, shadow_path, fh);
}

errdesc_t* vm_proxy_release(const std::string& path, std::unique_ptr<fuse_fh_t> fh) {
    if (fh == nullptr) {
        _errdesc_log(errdesc_set_fmt(ESTALE, "NULL fh for %s\n", path.c_str()), ERRDESC_ERROR);
        return nullptr;
    }
    cor_assert(fh->magic == fuse_fh_t::magic_value);
    cor_assert(fh->version == fuse_fh_t::version_value);
    fh->fd.reset();

    const mutex_lock_t lock(vm_proxy_open_list().mutex);
    vm_proxy_cookie_t& cookie = *fh->cookie;
    const mutex_lock_t cookie_lock(cookie.mutex);
    if (!cookie.detached) {
        cookie.ref--;
        cor_assert(cookie.ref >= 0);
        cookie.stamp = clock_now();
        if (cookie.header.type == VM_PROXY_HEADER_VMDK_FLAT && cookie.ref == 0)
            kick_snapshot_thr();
    } else if (fh->collect_stats) {
        stats_thr_close_stats(fh->path, fh->cbt_losetup);  // it may have read on since the cookie was torn down
    }
    return nullptr;
}

}  // namespace mirador
