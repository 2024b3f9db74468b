// SPDX-License-Identifier: Apache-2.0
// Any file in the place of a VM's configuration: opened, printed, and copied with its disks under other names.
#include <cstdlib>
#include <map>

#include "tests/fuzz/memory_file.h"
#include "vmware/lib/vmx/vmx.h"
#include "vmware/lib/vmx/vmx_convert.h"

using namespace mirador;

namespace {

vmxdesc_t parsed(const std::string& text) {
    vmxdesc_t desc;
    cor_assert(!vmx_parse_text("/ds/vm/vm.vmx", text, &desc));
    return desc;
}

std::string converted(const vmxdesc_t& desc, const std::string& text, const vmx_conversion_t& conversion) {
    std::string result;
    cor_assert(!vmx_convert_text(desc, text, conversion, &result));
    return result;
}

// Gives every disk a new name: nothing else of the description may change.
void convert(const vmxdesc_t& desc, const std::string& text) {
    cor_assert(converted(desc, text, {}) == text);
    std::map<std::string, std::string> names;
    for (const auto& [address, disk] : vmx_disks(desc))
        names.try_emplace(disk->filename, "new |\"#" + std::to_string(names.size()) + ".vmdk");
    vmxdesc_t copy = parsed(converted(desc, text, {names.begin(), names.end()}));
    for (auto& [address, device] : copy.devices) {
        const std::string& old_name = desc.devices.at(address).filename;
        const auto renamed = names.find(old_name);
        cor_assert(device.filename == old_name || (renamed != names.end() && device.filename == renamed->second));
        device.filename = old_name;
    }
    const auto same = [&](auto... field) { return ((desc.*field == copy.*field) && ...); };
    cor_assert(same(&vmxdesc_t::encoding, &vmxdesc_t::uuid_bios, &vmxdesc_t::uuid_location, &vmxdesc_t::vc_uuid,
                    &vmxdesc_t::displayname, &vmxdesc_t::guestos, &vmxdesc_t::workingdir, &vmxdesc_t::is_template,
                    &vmxdesc_t::ctk_enabled, &vmxdesc_t::controllers, &vmxdesc_t::lost_lines));
    cor_assert(desc.devices.size() == copy.devices.size() && vmx_disks(desc).size() == vmx_disks(copy).size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static memory_file_t file;
    file.fill(data, size);
    vmxdesc_t desc;
    if (vmx_open(file.path(), &desc) != nullptr)
        return 0;
    vmx_dump(desc, null_stream());
    for (const auto& [address, disk] : vmx_disks(desc))
        cor_assert(!disk->filename.empty() && disk->filename.find('\0') == std::string::npos);
    const std::string text(data, data + size);
    convert(parsed(text), text);
    return 0;
}
