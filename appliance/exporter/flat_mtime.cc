// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/flat_mtime.h"

#include <cerrno>

#include "appliance/exporter/cbt_vdisk.h"
#include "appliance/lib/corcbt.h"
#include "appliance/lib/registry.h"
#include "lib/clock.h"
#include "lib/cor_string.h"
#include "lib/log.h"

namespace mirador {
namespace {

constexpr std::time_t one_week = 604800;  // seconds

bool debugs() {
    return get_reg_settings()->cbt_debug_enabled;
}

// One decision, on the record as it is now.
class decision_t {
  public:
    decision_t(const flat_mtime_input_t& input, ks_vdisk_t* vdisk, bool is_new)
        : input_(input),
          vdisk_(*vdisk),
          is_new_(is_new),
          now_(clock_now()),
          reset_time_prev_(input.cbt_reset_time_prev == 0 ? std::time_t{input.cbt_reset_time} - one_week
                                                          : std::time_t{input.cbt_reset_time_prev}),
          time_(vdisk->cbt_reset_time_vdisk),
          size_(vdisk->flat_file_size) {}

    // Makes it and puts it into the record; the time that the disk is to report.
    std::time_t make() {
        _look_at_size();
        if (!is_new_ && time_ == 0)
            _set(input_.cbt_reset_time);
        _print();
        if (input_.cbt_reset_pending || is_new_)
            _reset();
        else if (time_ < reset_time_prev_ && input_.actual_mtime > std::time_t{input_.cbt_reset_time})
            _set_now("a skipped one was updated");
        if (marked_ && debugs())
            ts_printf("get_mtime updating vdisk table\n");
        vdisk_.cbt_reset_time_vdisk = static_cast<std::uint32_t>(time_);
        vdisk_.flat_file_size = size_;
        return time_;
    }

    // Whether the record has changed.
    bool is_marked() const { return marked_; }

  private:
    void _set(std::time_t time) {
        time_ = time;
        marked_ = true;
    }

    void _set_now(const char* why) {
        if (debugs())
            ts_printf("get_mtime %s\n", why);
        _set(now_);
    }

    // A disk that has grown must be copied as after a reset.
    void _look_at_size() {
        const auto st_size = static_cast<std::uint64_t>(input_.st_size);
        if (size_ != 0 && st_size > size_)
            _set(now_);
        else if (size_ != 0)
            return;
        size_ = st_size;
        marked_ = true;
    }

    void _reset() {
        if (input_.cbt_reset_pending)
            for (ks_string_t* changeid : {&vdisk_.changeid, &vdisk_.changeid_base, &vdisk_.changeid_incr})
                if (cbt_has_changeid(*changeid))
                    *changeid = cbt_uninitialized;
        if (input_.actual_mtime >= reset_time_prev_) {
            _set_now("actual >= cbt_reset_time_prev");
        } else if (input_.actual_mtime > time_) {
            if (debugs())
                ts_printf("get_mtime actual < cbt_reset_time_prev\n");
            _set(input_.actual_mtime);
        }
        marked_ = true;
    }

    void _print() const {
        if (!debugs())
            return;
        ts_printf("get_mtime cbt_reset_time_vdisk: %d\n", static_cast<int>(vdisk_.cbt_reset_time_vdisk));
        ts_printf("get_mtime changeid_base: %s\n", ks_text(vdisk_.changeid_base).c_str());
        ts_printf("get_mtime cbt_reset_pending:   %d\n", input_.cbt_reset_pending ? 1 : 0);
        ts_printf("get_mtime actual_mtime:        %d\n", static_cast<int>(input_.actual_mtime));
        ts_printf("get_mtime cbt_reset_time:      %d\n", static_cast<int>(input_.cbt_reset_time));
        ts_printf("get_mtime cbt_reset_time_prev: %d\n", static_cast<int>(reset_time_prev_));
    }

    const flat_mtime_input_t& input_;
    ks_vdisk_t& vdisk_;
    const bool is_new_;
    const std::time_t now_;
    const std::time_t reset_time_prev_;
    std::time_t time_;
    std::uint64_t size_;
    bool marked_ = false;
};

}  // namespace

errdesc_t* get_flat_file_mtime(const flat_mtime_input_t& input, std::time_t* flat_file_mtime) {
    *flat_file_mtime = input.actual_mtime;
    const std::string flat_name(last_component(input.shadow_path));
    if (flat_name.empty()) {
        ts_printf("get_flat_file_mtime: cannot find vdisk_name in path %s\n", input.shadow_path.c_str());
        return errdesc_set_fmt(EINVAL, "Invalid path %s", input.shadow_path.c_str());
    }
    std::string vdisk_name;
    RETURN_IF_ERROR(flat_to_corcbt(flat_name, &vdisk_name));
    if (debugs()) {
        ts_printf("get_mtime shadow: %s\n", input.shadow_path.c_str());
        ts_printf("get_mtime vdisk_name: %s\n", vdisk_name.c_str());
    }
    RETURN_IF_ERROR(change_cbt_vdisk(input.vm_uuid, vdisk_name, [&](ks_vdisk_t* vdisk, bool is_new) {
        decision_t decision(input, vdisk, is_new);
        *flat_file_mtime = decision.make();
        return decision.is_marked();
    }));
    if (debugs())
        ts_printf("get_mtime returning:           %d\n", static_cast<int>(*flat_file_mtime));
    return nullptr;
}

}  // namespace mirador
