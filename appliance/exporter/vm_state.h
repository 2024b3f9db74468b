// SPDX-License-Identifier: Apache-2.0
// The exported virtual machines: one record each, in a table keyed by the VM's shadow directory. The controller thread
// enters, changes and retires records; hypervisor threads, file-system requests and the snapshot thread look them up
// and update them (vm_update.h).
//
// Locks: the table's mutex guards the table, who counts as a user of a record, and release_pending; it is never held
// while a record's mutex is taken. A record's `mutex` makes updates, changes and its end follow one another;
// `vmc_rwlock`, taken after it, guards what the controller said of the VM. A record that is retired stays in the table,
// invisible, until its last user is gone and its directory with it; only then may a VM take its place.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "appliance/exporter/vd_state.h"
#include "appliance/exporter/vm_paths.h"
#include "controller/lib/kestrel_types.h"
#include "lib/errdesc.h"
#include "lib/thread_annotations.h"

namespace mirador {

struct vm_state_t {
    static constexpr std::uint32_t magic_value = 0xeeeeeebb;
    static constexpr std::uint32_t version_value = 1;

    explicit vm_state_t(std::string path) : vm_path(std::move(path)) {}

    std::uint32_t magic = magic_value;
    std::uint32_t version = version_value;
    const std::string vm_path;               // shadow directory, the key
    std::atomic<std::uint64_t> gen = 0;      // the last cycle of the controller that listed the VM
    std::atomic<bool> only_kept = false;     // no longer listed, but its snapshot is in use
    std::atomic<bool> keeps_alerts = false;  // beyond its end
    mutex_t mutex;
    mutable rwlock_t vmc_rwlock;
    ks_vm_config_t vmc GUARDED_BY(vmc_rwlock);
    ks_vdisk_list_t vmc_vdisk_list GUARDED_BY(vmc_rwlock);
    vm_paths_t paths GUARDED_BY(mutex);
    std::vector<std::string> left_entries GUARDED_BY(mutex);  // under former names of the VMX file, to be removed
    ks_hypervisor_type_t hv_type = HYPERVISOR_TYPE_UNKNOWN;
    std::atomic<std::time_t> last_update = 0;  // end of the last attempt, seconds
    std::atomic<std::uint32_t> failed_attempts = 0;
    std::atomic<bool> refresh_now = true;     // the next update must be a full one
    std::atomic<bool> refresh_again = false;  // and the one after that which is on its way
    std::time_t stamp GUARDED_BY(mutex) = 0;  // of the last update: no two of a VM bear the same
    vd_list_t vd_list GUARDED_BY(mutex);
    std::vector<std::string> independent_disks GUARDED_BY(mutex);  // about which an alert was raised
    bool vmx_available GUARDED_BY(mutex) = false;                  // the last full update could copy the VMX file
    bool release_pending = false;                                  // by the table's mutex
};

// A user's hold on a record; gives it back at its end.
class vm_state_ref_t {
  public:
    vm_state_ref_t() = default;
    explicit vm_state_ref_t(std::shared_ptr<vm_state_t> state) : state_(std::move(state)) {}
    vm_state_ref_t(vm_state_ref_t&&) noexcept = default;
    vm_state_ref_t& operator=(vm_state_ref_t&& other) noexcept {
        state_.swap(other.state_);
        return *this;
    }
    ~vm_state_ref_t();

    explicit operator bool() const { return state_ != nullptr; }
    vm_state_t& operator*() const { return *state_; }

  private:
    friend void vm_state_release(vm_state_ref_t state, bool remove_state);
    std::shared_ptr<vm_state_t> state_;
};

// Gives a record back. With `remove_state` it is retired as well; its user who ends last removes the VM's disks,
// directory and alerts. The record's mutex must not be held, neither here nor at the end of a vm_state_ref_t.
void vm_state_release(vm_state_ref_t state, bool remove_state);

// The record of a VM's shadow directory; none when there is none or it is retired.
vm_state_ref_t vm_state_get(const std::string& vm_shadow_path);

// Enters a new, complete record. None must stand under its path (asserted), not even a retired one.
void vm_state_save(std::shared_ptr<vm_state_t> state);

// Copies of all keys.
std::vector<std::string> vm_state_get_keys();

// Takes over what the controller says of a VM in cycle `gen`; *updated tells whether that changed anything. The VM's
// directory is filled by a later update. Errors, also raised as the VM's alert: ENOENT for a VM without datastore;
// vm_paths_make's; the controller client's; EINVAL for a second VM in a directory; errno with the
// directory when it cannot be made; ETIMEDOUT (no alert) for a VM that is busy: to be tried again.
[[nodiscard]] errdesc_t* vm_state_update(const ks_vm_config_t& vmc, const ks_hypervisor_config_t& hvc,
                                         const std::string& root_shadow_path, std::uint64_t gen, bool* updated);

// Retires the VMs that cycle `gen` did not list. One whose snapshot is in use stays, with an alert, which is cleared
// when a later cycle lists it again. `is_listed` (null: no) tells that the cycle met a VM which it could not take over:
// that one's alerts, which say why, stay when it goes.
void vm_stop_old(std::uint64_t gen, const std::function<bool(const ks_vm_config_t&)>& is_listed = nullptr);

// Calls `visit` for each VM of a hypervisor until it returns false.
void vm_state_each(const std::string& hv_hostname, const std::function<bool(vm_state_t&)>& visit);

// The number of this vendor's snapshots that the controller has seen on a VM. Error: EINVAL for an unknown VM.
[[nodiscard]] errdesc_t* vm_count_snapshots(const std::string& vm_shadow_path, int* count);

// The same of a VM that stood there but may have moved since: what is no longer listed tells nothing new.
[[nodiscard]] errdesc_t* vm_count_snapshots_anywhere(const std::string& vm_shadow_path, const std::string& hv_hostname,
                                                     const std::string& vm_uuid, int* count);

// Waits until the controller has seen as many snapshots of a VM as expected: none, or at least that many. Errors:
// EINVAL for an unknown VM, and for one that is no longer listed: nobody tells its number then; ETIME after `timeout`
// seconds; ERR_CANCELLED when `goes_on` (null: always) says no.
[[nodiscard]] errdesc_t* vm_wait_snapshot(const std::string& vm_shadow_path, int snapshot_expected, std::time_t timeout,
                                          const std::function<bool()>& goes_on);

}  // namespace mirador
