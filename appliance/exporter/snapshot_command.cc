// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/snapshot_command.h"

#include <cerrno>
#include <memory>

#include "appliance/exporter/snapshot_thr.h"
#include "appliance/lib/vm_proxy_header.h"
#include "lib/cor_string.h"
#include "lib/file_io.h"
#include "lib/log.h"

namespace mirador {
namespace {

// The name of the entry whose suffix begins with ".vmx"; empty when there is none.
std::string find_vmx(DIR* dir) {
    while (const dirent* entry = readdir(dir)) {  // NOLINT(concurrency-mt-unsafe): the stream is this thread's
        const std::string name = entry->d_name;
        const std::size_t dot = name.rfind('.');
        if (dot != std::string::npos && name.compare(dot, 4, ".vmx") == 0)
            return name;
    }
    return {};
}

errdesc_t* read_vm_header(const std::string& path, const std::string& shadow_path,
                          std::unique_ptr<vm_proxy_header_t>* header) {
    const dir_ptr dir(opendir(shadow_path.c_str()));
    if (dir == nullptr)
        return errdesc_set_fmt(EINVAL, "Invalid VM folder name '%s' (%d).", path.c_str(), errno);
    const std::string vmx = find_vmx(dir.get());
    if (vmx.empty())
        return errdesc_set_fmt(EINVAL, "Invalid VM folder name '%s', .vmx file is missing.", path.c_str());
    return vm_proxy_read_header_checked(shadow_path + '/' + vmx, header);
}

errdesc_t* scrub(const std::string& path, const std::string& shadow_path, const std::string& attribute,
                 std::string* snapshot_name) {
    const std::size_t colon = attribute.find(':');
    if (colon == std::string::npos || colon + 1 == attribute.size())
        return errdesc_set_str(EINVAL, "Invalid snapshot name.");
    *snapshot_name = attribute.substr(colon + 1);
    std::unique_ptr<vm_proxy_header_t> header;
    RETURN_IF_ERROR(read_vm_header(path, shadow_path, &header));
    return snapshot_scrub_ex(header->hv_name, header->vm_uuid, *snapshot_name);
}

}  // namespace

std::string snapshot_command(const std::string& path, const std::string& shadow_path, const std::string& attribute) {
    std::string snapshot_name;
    errdesc_t* e = scrub(path, shadow_path, attribute, &snapshot_name);
    if (e == nullptr)
        return "0:Snapshot '" + snapshot_name + "' has been removed.";
    const std::string value = cor_format("%d:%s", e->number, e->string);
    if (e->number == EAGAIN)
        ts_printf("INFO: %s\n", e->string);
    else
        _errdesc_log(e, ERRDESC_WARNING);
    return value;
}

}  // namespace mirador
