// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/export_names.h"

#include "lib/tool_paths.h"

namespace mirador {
namespace {

constexpr std::string_view corcbt_ext = "-corcbt.vmdk";
constexpr std::string_view losetup_ext = ".vmdk-cbt-losetup";
constexpr std::string_view export_ext = ".vmdk";

}  // namespace

bool is_corcbt_name(const std::string& path) {
    if (path.ends_with(corcbt_ext))
        return true;
    std::string export_path;
    const errdesc_keeper_t keep;
    return losetup_file_to_export(path, &export_path) == nullptr && export_path.ends_with(corcbt_ext);
}

errdesc_t* corcbt_to_export_file(const std::string& cbt_path, const std::string& file_ext, std::string* export_path) {
    if (!cbt_path.ends_with(corcbt_ext))
        return errdesc_set_str(ERR_INVALID_ARG, "Invalid corcbt vmdk path");
    *export_path = tool_paths().export_root + cbt_path.substr(0, cbt_path.size() - corcbt_ext.size()) + file_ext;
    return nullptr;
}

errdesc_t* export_to_losetup_file(const std::string& export_flat, std::string* losetup_file) {
    const std::size_t dot = export_flat.rfind('.');
    if (dot == std::string::npos)
        return errdesc_set_str(ERR_INVALID_ARG, "Invalid export vmdk path");
    *losetup_file = export_flat.substr(0, dot).append(losetup_ext);
    return nullptr;
}

errdesc_t* losetup_file_to_export(const std::string& losetup_file, std::string* export_path) {
    const std::size_t dot = losetup_file.rfind('.');
    if (dot == std::string::npos || losetup_file.substr(dot) != losetup_ext)
        return errdesc_set_str(ERR_INVALID_ARG, "Invalid export vmdk path");
    *export_path = losetup_file.substr(0, dot).append(export_ext);
    return nullptr;
}

bool losetup_paths_to_export(const std::string& path, const std::string& shadow_path, std::string* export_path,
                             std::string* export_shadow) {
    const errdesc_keeper_t keep;
    return losetup_file_to_export(path, export_path) == nullptr &&
           losetup_file_to_export(shadow_path, export_shadow) == nullptr;
}

}  // namespace mirador
