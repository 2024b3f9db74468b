// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/corcbt.h"

#include <algorithm>
#include <cerrno>
#include <string_view>

#include "controller/lib/controller.h"
#include "lib/cor_string.h"

namespace mirador {
namespace {

constexpr std::string_view corcbt_ending = "-corcbt.vmdk";
constexpr std::string_view flat_endings[] = {"-flat.vmdk", "-rdm.vmdk"};

// What is added to the percentage that a file needs: a part of that.
constexpr std::int64_t headroom_part = 4;
constexpr std::int64_t whole_percent = 100;

// Why an extent cannot be mapped; null when it can. `end` is where the one before it ends.
const char* extent_fault(const cbt_extent_data_t& extent, std::int64_t end, std::int64_t disk_size) {
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

bool is_whole_sectors(std::int64_t size) {
    return size >= 0 && size % cbt_sector_size == 0;
}

std::int64_t total_length(const cbt_extent_list_t& list) {
    std::int64_t total = 0;
    for (const cbt_extent_data_t& extent : list)
        total += extent.length;
    return total;
}

}  // namespace

errdesc_t* cbt_check_extents(const cbt_extent_list_t& list, std::int64_t disk_size) {
    std::int64_t end = 0;
    for (std::size_t i = 0; i < list.size(); ++i) {
        const cbt_extent_data_t extent = list[i];
        if (const char* fault = extent_fault(extent, end, disk_size))
            return errdesc_set_fmt(EINVAL, "changed extent %zu (start %jd, length %jd) %s", i,
                                   static_cast<std::intmax_t>(extent.start), static_cast<std::intmax_t>(extent.length),
                                   fault);
        end = extent.start + extent.length;
    }
    return nullptr;
}

errdesc_t* check_corcbt(const cbt_file_header_t& header, const cbt_extent_list_t& list, std::int64_t file_size) {
    const auto number = [](std::int64_t value) { return static_cast<std::intmax_t>(value); };
    if (!is_whole_sectors(header.flat_file_size))
        return errdesc_set_fmt(EINVAL, "changes to a disk of %jd bytes", number(header.flat_file_size));
    RETURN_IF_ERROR(cbt_check_extents(list, header.flat_file_size));
    const std::int64_t total = total_length(list);
    if (total != header.total_change_size)
        return errdesc_set_fmt(EINVAL, "%jd bytes in changed extents, %jd in their header", number(total),
                               number(header.total_change_size));
    if (list.empty())
        return nullptr;
    if (!is_whole_sectors(header.block_data_offset))
        return errdesc_set_fmt(EINVAL, "changed data begin at byte %jd", number(header.block_data_offset));
    const std::int64_t size = std::min(file_size, header.corcbt_file_size);
    if (header.block_data_offset > size || total > size - header.block_data_offset)
        return errdesc_set_fmt(EINVAL, "%jd bytes of changed data at byte %jd of a file of %jd", number(total),
                               number(header.block_data_offset), number(size));
    return header.corcbt_file_size <= file_size ? nullptr
                                                : errdesc_set_fmt(EINVAL, "a file of %jd bytes with %jd in its header",
                                                                  number(file_size), number(header.corcbt_file_size));
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

errdesc_t* check_corcbt_size_percent(const cbt_file_header_t& header, std::int64_t promised, std::uint32_t percent,
                                     std::uint32_t* raised) {
    if (header.corcbt_file_size <= promised)
        return nullptr;
    const std::int64_t one_percent = std::max<std::int64_t>(header.flat_file_size / whole_percent, 1);
    const std::int64_t needed = std::min((header.corcbt_file_size - 1) / one_percent + 1, whole_percent);
    const std::int64_t roomy = std::min(needed + needed / headroom_part + 1, whole_percent);
    *raised = std::max(percent, static_cast<std::uint32_t>(roomy));
    return errdesc_set_fmt(EFBIG, "Changed blocks need %jd bytes, %jd are exported",
                           static_cast<std::intmax_t>(header.corcbt_file_size), static_cast<std::intmax_t>(promised));
}

}  // namespace mirador
