// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/vm_proxy_open.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

#include "appliance/exporter/cbt_changeid.h"
#include "appliance/exporter/snapshot_thr.h"
#include "appliance/exporter/stats_thr.h"
#include "appliance/exporter/vm_proxy_evict.h"
#include "appliance/lib/mbr.h"
#include "appliance/lib/registry.h"
#include "appliance/lib/vdsk_header_build.h"
#include "appliance/lib/vmcfg.h"
#include "appliance/mounter/vdsk_partitions.h"
#include "lib/clock.h"
#include "lib/cor_assert.h"
#include "lib/log.h"
#include "vmware/lib/vmdk/datastore_containment.h"

namespace mirador {
namespace {

constexpr int setup_retry_limit = 3;

// Maps the disk's chain. When too many extent files are open, other disks of the hypervisor are given up for it.
errdesc_t* set_up_chain(vm_proxy_cookie_t& cookie) REQUIRES(cookie.mutex) {
    const std::string path = cookie.header.path;
    for (int retry = 0;;) {
        std::unique_ptr<vdskdesc_t> opened;
        errdesc_t* e = vdsk_setup(path, &opened);
        if (e == nullptr) {
            cookie.vdskdesc = std::move(opened);
            if (retry > 0)
                ts_printf("Retried successful: opened %s\n", path.c_str());
            return nullptr;
        }
        if (e->number != EMFILE)
            return e;
        e = vm_proxy_evict_intern(true, false, cookie.header.hv_name);
        if (e != nullptr) {
            ts_printf("Cannot open %s: Too many open extent files. File eviction failed. Won't retry.\n", path.c_str());
            return e;
        }
        if (++retry == setup_retry_limit)
            return errdesc_set_fmt(EMFILE, "Cannot open %s: vm_proxy_open_vmdk_flat has reached the retry limit (%d)",
                                   path.c_str(), setup_retry_limit);
        ts_printf("Cannot open %s: Too many open extent files. Performed file eviction, and retrying (retry %d).\n",
                  path.c_str(), retry);
    }
}

// Finds the partitions and, where smart reads look into volume groups, those.
errdesc_t* find_volumes(vdskdesc_t& disk) {
    RETURN_IF_ERROR(vdsk_get_partitions(disk.devicemapper_path, &disk.partitions));
    if (!get_reg_settings()->smartread_lvm_enabled)
        return nullptr;
    if (errdesc_t* e = vdsk_get_volume_groups(disk.devicemapper_path, disk.partitions, &disk.volume_groups))
        _errdesc_log(e, ERRDESC_ERROR);
    return nullptr;
}

// Freezes the VM's disks. It may last, and the path may meanwhile have become another VM's.
errdesc_t* take_snapshot(vm_proxy_cookie_t& cookie) REQUIRES(cookie.mutex) {
    const std::string vm_uuid = cookie.header.vm_uuid;
    RETURN_IF_ERROR(snapshot_use_t::take(cookie.path, cookie.shadow_path, &cookie.header, &cookie.virtual_machine,
                                         &cookie.snapshot_time, &cookie.snapshot));
    if (vm_uuid != cookie.header.vm_uuid)
        return errdesc_set_fmt(EBUSY, "%s: another disk has taken this path", cookie.path.c_str());
    return nullptr;
}

// Everything that happens once for a cookie, before its device can be opened.
errdesc_t* first_open(vm_proxy_cookie_t& cookie) REQUIRES(cookie.mutex) {
    RETURN_IF_ERROR(take_snapshot(cookie));
    ts_printf("vm_proxy_open_vmdk_flat: opening %s on %s (%s)\n", cookie.header.path, cookie.virtual_machine.c_str(),
              cookie.header.hv_name);
    RETURN_IF_ERROR(set_up_chain(cookie));
    // Now that its files are open: whatever is put in their place later does not matter.
    if (cookie.snapshot != nullptr)
        RETURN_IF_ERROR(cookie.snapshot->check_frozen(cookie.header.path));
    RETURN_IF_ERROR(find_volumes(*cookie.vdskdesc));
    cookie.devicemapper_path = cookie.vdskdesc->devicemapper_path;
    cor_assert(!cookie.devicemapper_path.empty());
    return nullptr;
}

errdesc_t* open_for_reading(const std::string& path, const std::string& reported_path, unique_fd* fd) {
    // A FIFO in the place of the file must not hold the caller, and with it every other open.
    *fd = unique_fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    return *fd ? nullptr : errdesc_set_extended_err(errno, reported_path);
}

vdsk_header_input_t header_input(const vm_proxy_cookie_t& cookie, const std::string& change_id) REQUIRES(cookie.mutex) {
    const vmdkdesc_t& base = *cookie.vdskdesc->vmdkdesc.vmdk_ancestor_array.back();
    vdsk_header_input_t input;
    input.cid = base.cid;
    input.createtype = base.createtype;
    input.extent_count = base.extentdesccount();
    input.thin_provisioned = base.thin_provisioned;
    input.change_tracking = base.change_track_path.has_value();
    input.disk_uuid = base.diskdb.uuid;
    input.path = cookie.header.path;
    input.vm_uuid = cookie.header.vm_uuid;
    input.hv_name = cookie.header.hv_name;
    input.size = cookie.header.statb.size;
    input.vm_name = cookie.virtual_machine;
    input.change_id = change_id;
    input.snapshot_time = cookie.snapshot_time;
    return input;
}

// Lays the virtual disk header over the first free sector; a disk that has none is exported without.
void place_header(vm_proxy_cookie_t& cookie, const std::string& change_id, int fd) REQUIRES(cookie.mutex) {
    std::uint32_t sector = no_sector;
    cookie.buffered_data = {};
    if (find_free_sector_by_partition(fd, &sector) != nullptr) {
        ts_printf("info: no free sector available in %s for Corvantis virtual disk header\n", cookie.path.c_str());
        return;
    }
    const std::unique_ptr<cor_vdsk_header_t> header = vdsk_header_build(header_input(cookie, change_id));
    cookie.buffered_data.offset = static_cast<std::int64_t>(sector) * sector_size;
    cookie.buffered_data.buffer.resize(sizeof *header);
    std::memcpy(cookie.buffered_data.buffer.data(), header.get(), sizeof *header);
}

// The trailer of a configuration file: the time of the open, padded with spaces, ended by a line feed.
std::vector<std::uint8_t> cfg_trailer(std::time_t now) {
    std::vector<std::uint8_t> trailer(cfg_trailer_size, ' ');
    char text[cfg_trailer_size] = {};
    const int length = cfg_print_timestamps(now, text, static_cast<int>(sizeof text));
    std::memcpy(trailer.data(), text, static_cast<std::size_t>(length));
    trailer.back() = '\n';
    return trailer;
}

}  // namespace

errdesc_t* vm_proxy_open_vmdk_flat(vm_proxy_cookie_t& cookie, bool is_second_stream, unique_fd* fd) {
    cor_assert(!cookie.path.empty());
    cor_assert(!cookie.shadow_path.empty());
    const bool is_first = cookie.devicemapper_path.empty();
    if (is_first)
        RETURN_IF_ERROR(first_open(cookie));
    const bool is_first_copy = !is_second_stream && (is_first || !cookie.is_copied);
    std::string change_id;
    if (is_first_copy)
        RETURN_IF_ERROR(get_cbt_changeid(cookie, &change_id));
    cor_assert(cookie.ref >= 0);
    RETURN_IF_ERROR(open_for_reading(cookie.devicemapper_path, cookie.header.path, fd));
    if (is_first || is_first_copy)
        place_header(cookie, change_id, fd->get());
    if (is_first)
        stats_thr_update_flat_size(cookie.path, cookie.header.statb.size);
    cookie.is_copied = is_first_copy || (!is_first && cookie.is_copied);
    return nullptr;
}

errdesc_t* vm_proxy_open_real_file(vm_proxy_cookie_t& cookie, unique_fd* fd) {
    const std::string path = cookie.header.path;
    RETURN_IF_ERROR(open_for_reading(path, path, fd));
    return datastore_check_opened(path, fd->get(), path);  // a link may have been put in the file's place
}

errdesc_t* vm_proxy_open_cfg_file(vm_proxy_cookie_t& cookie, unique_fd* fd) {
    RETURN_IF_ERROR(vm_proxy_open_real_file(cookie, fd));
    struct stat st {};
    if (fstat(fd->get(), &st) != 0)
        return errdesc_set_fmt(errno, "Cannot stat %s", cookie.header.path);
    cookie.buffered_data.offset = st.st_size;
    cookie.buffered_data.buffer = cfg_trailer(clock_now());
    return nullptr;
}

}  // namespace mirador
