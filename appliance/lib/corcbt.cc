// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/corcbt.h"

#include <string_view>

#include "controller/lib/controller.h"
#include "lib/cor_string.h"

namespace mirador {
namespace {

constexpr std::string_view corcbt_ending = "-corcbt.vmdk";
constexpr std::string_view flat_endings[] = {"-flat.vmdk", "-rdm.vmdk"};

}  // namespace

errdesc_t* flat_to_corcbt(const std::string& flat_path, std::string* corcbt_path) {
    for (const std::string_view ending : flat_endings) {
        if (!flat_path.ends_with(ending))
            continue;
        *corcbt_path = flat_path.substr(0, flat_path.size() - ending.size()).append(corcbt_ending);
        return nullptr;
    }
    return errdesc_set_str(ERR_INVALID_ARG, "Invalid flat vmdk path");
}

errdesc_t* get_corcbt_size_percent(const std::string& vm_uuid, const std::string& corcbt_path, std::uint32_t* percent) {
    record_list_ptr<ks_vdisk_t> disks;
    RETURN_IF_ERROR(controller_get_corcbt_vdisks(vm_uuid, std::string(last_component(corcbt_path)), &disks));
    const std::optional<ks_vdisk_t> first = list_pop(*disks);
    *percent = first ? first->corcbt_size_percentage : corcbt_default_size_percent;
    return nullptr;
}

}  // namespace mirador
