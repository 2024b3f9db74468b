// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/vmx_frozen.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "appliance/exporter/vd_state.h"
#include "lib/cor_assert.h"
#include "vmware/lib/vmdk/vmdk_chain.h"
#include "vmware/lib/vmdk/vmdk_open.h"
#include "vmware/lib/vmx/vmx.h"

namespace mirador {
namespace {

bool is_same_file(const std::string& one, const std::string& other) {
    std::error_code failed;
    return std::filesystem::equivalent(one, other, failed) && !failed;
}

// Where the descriptors of a disk and of those below it are, the disk's own first; empty when they cannot be read.
std::vector<std::string> chain_paths(const std::string& path) {
    vmdkdesc_t disk;
    std::vector<vmdkdesc_t*> chain;
    std::vector<std::string> paths;
    if (vmdk_open_checked(path, descriptor_role_t::head, &disk) == nullptr &&
        vmdk_get_ancestors(&disk, 0, &chain) == nullptr)
        for (const vmdkdesc_t* link : chain)
            paths.push_back(link->filename);
    vmdk_close(&disk);
    return paths;
}

std::size_t find_file(const std::string& path, const std::vector<std::string>& heads) {
    const auto found = std::ranges::find_if(heads, [&](const std::string& head) { return is_same_file(head, path); });
    return static_cast<std::size_t>(found - heads.begin());
}

// The entry whose disk the reference leads to: itself, or one further down its chain.
std::size_t find_entry(const std::string& reference, const vmxdesc_t& vmx, const std::vector<std::string>& heads) {
    std::string path;
    if (vd_get_fpath(reference, vmx_working_dir(vmx), vmx.dirname, &path) != nullptr)
        return heads.size();
    std::size_t entry = find_file(path, heads);
    if (entry == heads.size())
        for (const std::string& link : chain_paths(path))
            if ((entry = find_file(link, heads)) < heads.size())
                break;
    return entry;
}

}  // namespace

void vmx_follow_to_frozen(const std::string& vmx_path, const std::vector<std::string>& heads,
                          vmx_conversion_t* conversion) {
    cor_assert(heads.size() == conversion->size());
    const errdesc_keeper_t keeper;
    vmxdesc_t vmx;
    if (vmx_open(vmx_path, &vmx) != nullptr)
        return;
    for (const auto& [address, device] : vmx_disks(vmx)) {
        const std::size_t entry = find_entry(device->filename, vmx, heads);
        if (entry < conversion->size())
            (*conversion)[entry].first = device->filename;
    }
}

}  // namespace mirador
