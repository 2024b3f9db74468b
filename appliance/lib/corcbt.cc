// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/corcbt.h"

#include <cerrno>
#include <string_view>

#include "controller/lib/controller.h"
#include "lib/cor_string.h"

namespace mirador {
namespace {

constexpr std::string_view corcbt_ending = "-corcbt.vmdk";
constexpr std::string_view flat_endings[] = {"-flat.vmdk", "-rdm.vmdk"};

// Why an extent cannot be mapped; null when it can. `end` is where the one before it ends.
const char* find_fault(const cbt_extent_data_t& extent, std::int64_t end, std::int64_t disk_size) {
    if (extent.start < 0 || extent.length < 0)
        return "is negative";
    if (extent.length == 0)
        return "is empty";
    if (extent.start % cbt_sector_size != 0 || extent.length % cbt_sector_size != 0)
        return "is not of whole sectors";
    if (extent.start > disk_size || extent.length > disk_size - extent.start)
        return "lies beyond the end of the disk";
    return extent.start < end ? "begins before the end of the extent before it" : nullptr;
}

}  // namespace

errdesc_t* cbt_check_extents(const cbt_extent_list_t& list, std::int64_t disk_size) {
    std::int64_t end = 0;
    for (std::size_t i = 0; i < list.size(); ++i) {
        const cbt_extent_data_t extent = list[i];
        if (const char* fault = find_fault(extent, end, disk_size))
            return errdesc_set_fmt(EINVAL, "changed extent %zu (start %jd, length %jd) %s", i,
                                   static_cast<std::intmax_t>(extent.start), static_cast<std::intmax_t>(extent.length),
                                   fault);
        end = extent.start + extent.length;
    }
    return nullptr;
}

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
