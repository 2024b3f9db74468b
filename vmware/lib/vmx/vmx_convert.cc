// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmx/vmx_convert.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <map>

#include "vmware/lib/vmx/vmx.h"
#include "vmware/lib/vmx/vmx_encoding.h"
#include "vmware/lib/vmx/vmx_match.h"
#include "vmware/lib/vmx/vmx_scan.h"

namespace mirador {
namespace {

constexpr mode_t permissions = 0777;

using places_t = std::vector<vmx_setting_t>;
using references_t = std::map<std::string, places_t>;  // a disk's name and all lines that hold it

// The lines that name disks the VM has; a name that a later line with the same key replaces is none.
references_t find_references(const std::string& text, const vmxdesc_t& desc) {
    references_t references;
    for (const auto& [address, device] : desc.devices)
        if (vmx_is_disk(device))
            references[device.filename];
    static_cast<void>(vmx_scan(text, [&](const vmx_setting_t& setting) {
        vmx_address_t address;
        std::string property;
        if (!vmx_split_device_key(setting.key, &address, &property) || property != "filename")
            return;
        const auto found = references.find(vmx_decode(setting.value, desc.encoding));
        if (found != references.end() && desc.devices.at(address).filename == found->first)
            found->second.push_back(setting);
    }));
    return references;
}

struct change_t {
    vmx_setting_t place;
    std::string value;  // in the file's encoding, with its quotes
};

errdesc_t* find_changes(const vmxdesc_t& desc, const references_t& references, const vmx_conversion_t& conversion,
                        std::vector<change_t>* changes) {
    std::vector<std::string> names;
    std::vector<std::string> paths;
    for (const auto& reference : references)
        names.push_back(reference.first);
    for (const auto& entry : conversion)
        paths.push_back(entry.first);
    const auto partners = vmx_match(names, paths, desc.dirname);
    for (std::size_t i = 0; i < names.size(); ++i) {
        if (!partners[i])
            continue;
        const std::string& new_name = conversion[*partners[i]].second;
        const auto value = vmx_encode(new_name, desc.encoding);
        if (!value)
            return errdesc_set_fmt(EILSEQ, "%s cannot be written in the encoding of %s", new_name.c_str(),
                                   desc.filename.c_str());
        for (const vmx_setting_t& place : references.at(names[i]))
            changes->push_back({place, '"' + *value + '"'});
    }
    return nullptr;
}

std::string changed(const std::string& text, std::vector<change_t> changes) {
    std::sort(changes.begin(), changes.end(),
              [](const change_t& a, const change_t& b) { return a.place.begin < b.place.begin; });
    std::string result;
    std::size_t done = 0;
    for (const change_t& change : changes) {
        result.append(text, done, change.place.begin - done);
        result += change.value;
        done = change.place.end;
    }
    return result.append(text, done);
}

}  // namespace

errdesc_t* vmx_convert_text(const vmxdesc_t& desc, const std::string& text, const vmx_conversion_t& conversion,
                            std::string* converted) {
    std::vector<change_t> changes;
    RETURN_IF_ERROR(find_changes(desc, find_references(text, desc), conversion, &changes));
    *converted = changed(text, std::move(changes));
    return nullptr;
}

errdesc_t* vmx_copy_convert(const std::string& path, const std::string& copy_path, const vmx_conversion_t& conversion,
                            const opened_file_check_t& check) {
    struct stat original {};
    std::string text;
    vmxdesc_t desc;
    if (stat(path.c_str(), &original) != 0)
        return errdesc_set_str(errno, path);
    RETURN_IF_ERROR(vmx_read_text(path, &text, check));
    RETURN_IF_ERROR(vmx_parse_text(path, text, &desc));
    std::string converted;
    RETURN_IF_ERROR(vmx_convert_text(desc, text, conversion, &converted));
    return replace_text_file(copy_path, converted, original.st_mode & permissions, original);
}

}  // namespace mirador
