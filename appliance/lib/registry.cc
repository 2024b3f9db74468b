// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/registry.h"

namespace mirador {

void reg_settings_t::publish_names(const reg_names_t& names) {
    const auto kept = published_.insert({
        .appliance_uuid = names.appliance_uuid.substr(0, reg_names_t::uuid_length),
        .master_uuid = names.master_uuid.substr(0, reg_names_t::uuid_length),
        .vendor_id = names.vendor_id.substr(0, reg_names_t::vendor_id_length),
    });
    names_.store(&*kept.first, std::memory_order_release);
}

reg_settings_t* get_reg_settings() {
    static reg_settings_t settings;
    return &settings;
}

}  // namespace mirador
