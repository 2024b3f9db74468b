// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/vm_proxy_evict.h"

#include <sys/xattr.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <limits>

#include "appliance/exporter/cbt_device.h"
#include "appliance/exporter/cbt_vdisk.h"
#include "appliance/exporter/snapshot_thr.h"
#include "appliance/exporter/stats_thr.h"
#include "lib/clock.h"
#include "lib/cor_assert.h"
#include "lib/fault_point.h"
#include "lib/log.h"

namespace mirador {
namespace {

// "Now" of a forced eviction: every cookie that is not open has been idle long enough.
constexpr std::time_t end_of_time = std::numeric_limits<std::time_t>::max();

bool qualifies(const vm_proxy_cookie_t& cookie, std::time_t now, const std::optional<std::string>& hv_name)
    REQUIRES(cookie.mutex) {
    if (cookie.ref != 0 || now - cookie.stamp <= evict_min_idle)
        return false;
    if (!hv_name)
        return true;
    const std::uint32_t type = cookie.header.type;
    return (type == VM_PROXY_HEADER_VMDK_FLAT || type == VM_PROXY_HEADER_VMDK_CORCBT) &&
           *hv_name == cookie.header.hv_name;
}

// Tells whether clients have read all of a changed-block file that is about to go.
void print_reads(const vm_proxy_cookie_t& cookie) REQUIRES(cookie.mutex) {
    if (cookie.cbt == nullptr)
        return;
    const std::uint64_t read = cookie.external_read_bytes;
    ts_printf("%s of %s, file size %jd, read %jd\n",
              read < cookie.corcbt_file_size ? "Warning: short read" : "full read", cookie.path.c_str(),
              static_cast<std::intmax_t>(cookie.corcbt_file_size), static_cast<std::intmax_t>(read));
}

// The qualifying cookie with the smallest stamp, locked; null if there is none. Busy cookies are passed over.
cookie_ptr choose_victim(const std::vector<cookie_ptr>& list, std::time_t now,
                         const std::optional<std::string>& hv_name) NO_THREAD_SAFETY_ANALYSIS {
    cookie_ptr best;
    for (const cookie_ptr& cookie : list) {
        if (!cookie->mutex.try_lock())
            continue;
        cookie->stamp = std::min(cookie->stamp, now);  // the clock may have been set back
        const bool is_candidate = qualifies(*cookie, now, hv_name);
        if (is_candidate)
            print_reads(*cookie);
        if (is_candidate && (best == nullptr || cookie->stamp < best->stamp)) {
            if (best != nullptr)
                best->mutex.unlock();
            best = cookie;
        } else {
            cookie->mutex.unlock();
        }
    }
    return best;
}

// "user.vmdk_ref" of a file, an integer text.
bool read_vmdk_ref(const std::string& path, int* ref) {
    constexpr std::size_t text_size = 32;
    std::array<char, text_size + 1> text{};
    if (getxattr(path.c_str(), "user.vmdk_ref", text.data(), text_size) < 0)
        return false;
    *ref = std::atoi(text.data());
    return true;
}

void evict_flat(vm_proxy_cookie_t& cookie, bool check_vmdk_ref) REQUIRES(cookie.mutex) {
    cor_dev_close(&cookie.pdev);
    if (cookie.vdskdesc != nullptr) {
        const std::string extent_path = cookie.vdskdesc->vdsk_extent_path;
        cookie.vdskdesc.reset();
        if (check_vmdk_ref)
            check_n_wait_for_zero_vmdk_ref(extent_path);
    }
    cookie.devicemapper_path.clear();
    cookie.buffered_data = {};
    cookie.publish_info();
    stats_thr_close_stats(cookie.path, false);
    stats_thr_close_stats(cookie.path, true);
    cookie.snapshot.reset();
}

// The next backup asks for what changed since the last full copy: nobody knows whether this one was read whole.
void evict_corcbt(vm_proxy_cookie_t& cookie) REQUIRES(cookie.mutex) {
    const bool was_served = cookie.cbt != nullptr;  // a set-up that failed has reset the record
    cookie.cbt.reset();
    cookie.devicemapper_path.clear();
    cookie.corcbt_file_size = 0;
    cookie.publish_info();
    stats_thr_close_stats(cookie.path, false);
    fault_moment("evict.closed");
    if (was_served)
        reset_cbt_vdisk_path(cookie.header.vm_uuid, cookie.path);
}

cookie_ptr pop_cookie(vm_proxy_open_list_t& table) {
    const mutex_lock_t lock(table.list_mutex);
    return table.list.empty() ? nullptr : table.list.front();
}

}  // namespace

void check_n_wait_for_zero_vmdk_ref(const std::string& path) {
    constexpr int max_waits = 60;
    int ref = 0;
    int waiting = 0;
    for (;; waiting++) {
        if (!read_vmdk_ref(path, &ref)) {
            ts_printf("INFO: check_n_wait_for_zero_vmdk_ref did not get vmdk ref count for %s (errno %d)\n",
                      path.c_str(), errno);
            return;
        }
        if (ref == 0)
            return;
        if (waiting == max_waits || snapshot_state_hurries())
            break;
        clock_sleep(1);
    }
    ts_printf("WARNING: check_n_wait_for_zero_vmdk_ref: vmdk ref %d is not zero (%s), waiting = %d\n", ref,
              path.c_str(), waiting);
}

errdesc_t* vm_proxy_take_victim(bool force, const std::optional<std::string>& hv_name,
                                cookie_ptr* victim) NO_THREAD_SAFETY_ANALYSIS {
    vm_proxy_open_list_t& table = vm_proxy_open_list();
    *victim = choose_victim(table.list, force ? end_of_time : clock_now(), hv_name);
    if (*victim == nullptr)
        return errdesc_set(EMFILE);
    (*victim)->detached = true;
    std::erase(table.list, *victim);
    return nullptr;
}

errdesc_t* vm_proxy_evict_intern(bool force, bool check_vmdk_ref,
                                 const std::optional<std::string>& hv_name) NO_THREAD_SAFETY_ANALYSIS {
    vm_proxy_open_list_t& table = vm_proxy_open_list();
    cookie_ptr victim;
    {
        const mutex_lock_t lock(table.list_mutex);
        RETURN_IF_ERROR(vm_proxy_take_victim(force, hv_name, &victim));
    }
    errdesc_t* e = vm_proxy_do_evict(*victim, check_vmdk_ref);
    victim->mutex.unlock();
    return e;
}

errdesc_t* vm_proxy_evict(bool force) {
    vm_proxy_open_list_t& table = vm_proxy_open_list();
    const mutex_lock_t lock(table.mutex);
    if (pop_cookie(table) == nullptr)
        return nullptr;
    return vm_proxy_evict_intern(force, true, std::nullopt);
}

errdesc_t* vm_proxy_do_evict(vm_proxy_cookie_t& cookie, bool check_vmdk_ref) {
    switch (cookie.header.type) {
        case VM_PROXY_HEADER_VMDK_FLAT:
            evict_flat(cookie, check_vmdk_ref);
            return nullptr;
        case VM_PROXY_HEADER_VMDK_ASCII:
        case VM_PROXY_HEADER_VMX:
        case VM_PROXY_HEADER_CFG:
            return nullptr;
        case VM_PROXY_HEADER_VMDK_CORCBT:
            evict_corcbt(cookie);
            return nullptr;
        default:
            cor_assert_failed("type is a known header type", __FILE__, __LINE__, __func__);
    }
}

void vm_proxy_release_all() {
    vm_proxy_open_list_t& table = vm_proxy_open_list();
    while (const cookie_ptr popped = pop_cookie(table)) {
        vm_proxy_cookie_t& cookie = *popped;
        const mutex_lock_t lock(cookie.mutex);
        if (errdesc_t* e = vm_proxy_do_evict(cookie, false))
            _errdesc_log(e, ERRDESC_ERROR);
        vm_proxy_remove_cookie(cookie);
    }
    const mutex_lock_t lock(table.list_mutex);
    cor_assert_text(table.list.empty(), "count == 0");
}

}  // namespace mirador
