// SPDX-License-Identifier: Apache-2.0
// The settings registry: one process-wide record of the appliance's tunables with built-in defaults.
//
// Readers never lock. Scalars are single words, read and written with relaxed ordering: a reader sees the old value or
// the new one, and no order between two settings is promised. The names are published together as one immutable record
// that stays valid for the life of the process. There is one writer at a time: the thread that refreshes the settings,
// or a test.
#pragma once

#include <atomic>
#include <compare>
#include <cstddef>
#include <set>
#include <string>

#include "lib/errdesc.h"

namespace mirador {

// A scalar setting. It reads and is assigned like a plain value; get() is for where no conversion takes place
// (formats).
template <typename T>
class reg_value_t {
  public:
    constexpr reg_value_t(T value) : value_(value) {}
    reg_value_t(const reg_value_t&) = delete;
    reg_value_t& operator=(const reg_value_t&) = delete;
    ~reg_value_t() = default;

    T get() const { return value_.load(std::memory_order_relaxed); }
    operator T() const { return get(); }
    void operator=(T value) { value_.store(value, std::memory_order_relaxed); }

  private:
    std::atomic<T> value_;
};

// The settings that are texts.
struct reg_names_t {
    static constexpr std::size_t uuid_length = 63;  // longest that is kept
    static constexpr std::size_t vendor_id_length = 10;

    std::string appliance_uuid;
    std::string master_uuid;
    std::string vendor_id;

    auto operator<=>(const reg_names_t&) const = default;  // NOLINT(modernize-use-nullptr): no pointer here
};

class reg_settings_t {
  public:
    // The names as last published. The record lives as long as the process and never changes.
    const reg_names_t& names() const { return *names_.load(std::memory_order_acquire); }

    // Publishes names, each cut at its longest length. Every set of names ever published is kept once, since readers
    // may hold on to it. Writer only.
    void publish_names(const reg_names_t& names);

    reg_value_t<bool> smartread_optimize = true;
    reg_value_t<bool> smartread_lvm_enabled = false;
    reg_value_t<int> cache_ttl = 120;  // seconds
    reg_value_t<bool> ondemand_refresh = false;
    reg_value_t<bool> export_vm_uuid_enabled = false;
    reg_value_t<int> debug_level = 0;
    reg_value_t<int> cbt_percent = 0;
    reg_value_t<bool> cbt_debug_enabled = false;
    reg_value_t<bool> recover_automount_enabled = false;
    reg_value_t<std::size_t> readahead_size = 1048576;  // bytes
    reg_value_t<int> snapshot_max_idle = 300;           // seconds
    reg_value_t<int> snapshot_max_life = 172800;        // seconds
    reg_value_t<int> snapshot_retry_limit = 12;
    reg_value_t<bool> snapshot_blocking_removal = true;
    reg_value_t<int> nfc_session_reserved = 0;
    reg_value_t<bool> directio = false;
    reg_value_t<int> max_session = 50;  // exported files open or kept ready at a time

  private:
    std::set<reg_names_t> published_{reg_names_t{}};
    std::atomic<const reg_names_t*> names_{&*published_.begin()};
};

// The one record; never null.
reg_settings_t* get_reg_settings();

// Reads the settings anew from the controller's registry, key by key in a fixed order; each change is logged. Writer
// only, and only before exported files are open: `max_session` must not fall below the number of open ones.
//
// Every text but "0" switches a flag on; what is no number counts as 0, a number beyond its type as the nearest. A
// negative count (`nfc_session_reserved`, `readahead_size`, `max_session`) is passed over. `master_uuid` is that of
// the appliance where the controller tells none.
// Errors: those of the controller (controller/lib/controller.h); the first key that fails ends the update, and those
// behind it keep their values. Only "feature.read_ahead.size" may fail.
[[nodiscard]] errdesc_t* registry_settings_update();

// Sets `cbt_debug_enabled` to whether the file "cbt_debug" exists in the directory for temporary files. Writer only.
void set_cbt_debug();

}  // namespace mirador
