// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/cbt_open.h"

#include <fcntl.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <utility>

#include "appliance/exporter/cbt_script.h"
#include "appliance/exporter/cbt_setup.h"
#include "appliance/lib/registry.h"
#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/log.h"

namespace mirador {
namespace {

std::atomic<bool> _opens_allowed = true;

bool debugs() {
    return get_reg_settings()->cbt_debug_enabled;
}

// The table lock and a cookie's mutex, both held, are free while one lives.
class unlocked_t {
  public:
    explicit unlocked_t(vm_proxy_cookie_t& cookie) NO_THREAD_SAFETY_ANALYSIS : cookie_(cookie) {
        if (debugs())
            ts_printf("corcbt_setup unlocking cookie and list\n");
        cookie_.mutex.unlock();
        vm_proxy_open_list().mutex.unlock();
    }
    ~unlocked_t() NO_THREAD_SAFETY_ANALYSIS {
        if (debugs())
            ts_printf("corcbt_setup relocking cookie and list\n");
        vm_proxy_open_list().mutex.lock();
        cookie_.mutex.lock();
    }
    unlocked_t(const unlocked_t&) = delete;
    unlocked_t& operator=(const unlocked_t&) = delete;

  private:
    vm_proxy_cookie_t& cookie_;
};

errdesc_t* open_device(const std::string& device, const std::string& reported_path, unique_fd* fd) {
    *fd = unique_fd(open(device.c_str(), O_RDONLY | O_CLOEXEC));
    return *fd ? nullptr : errdesc_set_extended_err(errno, reported_path);
}

// Leaves nothing behind when it fails.
errdesc_t* set_up(cbt_setup_t* setup, unique_fd* fd) {
    errdesc_t* e = cbt_set_up(setup);
    if (e == nullptr)
        e = open_device(setup->device->vdskdesc.devicemapper_path, setup->header.path, fd);
    if (e == nullptr)
        e = cbt_note_changeid(*setup);
    if (e != nullptr) {
        fd->reset();
        cbt_undo(setup);
    }
    return e;
}

errdesc_t* first_open(vm_proxy_cookie_t& cookie, unique_fd* fd) REQUIRES(cookie.mutex) {
    if (cbt_hurries())  // set-ups that wait for one another would each ask a controller that may be silent
        return errdesc_set_str(ERR_CANCELLED, cookie.path);
    cbt_setup_t setup;
    setup.path = cookie.path;
    setup.shadow_path = cookie.shadow_path;
    setup.header = cookie.header;
    setup.disk_name = last_component(cookie.path);
    errdesc_t* e = nullptr;
    {
        const unlocked_t unlocked(cookie);
        e = set_up(&setup, fd);
    }
    if (e != nullptr)
        return e;
    cor_assert(!cookie.detached && cookie.cbt == nullptr);
    cookie.header = setup.header;
    if (cookie.virtual_machine.empty())
        cookie.virtual_machine = ks_text(setup.vm->vm_name);
    cookie.devicemapper_path = setup.device->vdskdesc.devicemapper_path;
    cookie.corcbt_file_size = static_cast<std::uint64_t>(setup.corcbt_file_size);
    cookie.cbt = std::move(setup.device);
    return nullptr;
}

errdesc_t* open_again(vm_proxy_cookie_t& cookie, unique_fd* fd) REQUIRES(cookie.mutex) {
    if (debugs())
        ts_printf("open_corcbt_file, have devicemapper_path: %s\n", cookie.devicemapper_path.c_str());
    return open_device(cookie.devicemapper_path, cookie.header.path, fd);
}

}  // namespace

errdesc_t* vm_proxy_open_corcbt_file(vm_proxy_cookie_t& cookie, unique_fd* fd) {
    if (debugs())
        ts_printf("vm_proxy_open_corcbt_file, path: %s\n", cookie.path.c_str());
    if (!_opens_allowed)
        return errdesc_set_fmt(ERR_NOT_SUPPORTED, "%s: changed-block files cannot be read with the option -s",
                               cookie.path.c_str());
    cor_assert(cookie.ref >= 0);
    return cookie.devicemapper_path.empty() ? first_open(cookie, fd) : open_again(cookie, fd);
}

void allow_corcbt_opens(bool allowed) {
    _opens_allowed = allowed;
}

}  // namespace mirador
