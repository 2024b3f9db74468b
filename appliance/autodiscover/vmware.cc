// SPDX-License-Identifier: Apache-2.0
#include "appliance/autodiscover/vmware.h"

#include <cerrno>

#include "lib/clock.h"
#include "lib/cor_assert.h"
#include "lib/cor_uuid.h"
#include "vmware/lib/vmx/vmx.h"

namespace mirador {
namespace {

constexpr int open_attempts = 2;
constexpr unsigned pause_after_failure = 3;  // seconds

errdesc_t* open_patiently(const std::string& path, vmxdesc_t* vmx) {
    errdesc_t* e = nullptr;
    for (int attempt = 0; attempt < open_attempts; ++attempt) {
        e = vmx_open(path, vmx);
        if (e == nullptr)
            return nullptr;
        clock_sleep(pause_after_failure);
    }
    return e;
}

// The canonical form; empty for a text that is no uuid. Without this every VM with a damaged uuid would be the same.
std::string canonical_uuid(const std::string& text) {
    cor_uuid_t uuid;
    return !text.empty() && uuid_str_to_value(text, &uuid) && uuid != cor_uuid_t{} ? normalize_uuid(text) : "";
}

void copy_texts(const vmxdesc_t& vmx, vhost_record_t* record) {
    record->uuid = canonical_uuid(vmx.uuid_bios);
    record->uuid2 = vmx.uuid_location;
    record->uuid3 = canonical_uuid(vmx.vc_uuid);
    record->name = vmx.displayname;
    record->os = vmx.guestos;
    record->dirname = vmx.dirname;
    if (!vmx.workingdir.empty())
        record->workingdir = vmx.workingdir;
}

errdesc_t* copy_disks(const vmxdesc_t& vmx, vhost_record_t* record) {
    const auto disks = vmx_disks(vmx);
    if (disks.size() > vhost_record_t::max_vdsks)
        return errdesc_set_fmt(EINVAL, "more than %zu virtual disks for %s", vhost_record_t::max_vdsks,
                               vmx.filename.c_str());
    for (const auto& [address, device] : disks)
        record->vdsk.at(static_cast<std::size_t>(record->vdskcount++)) = {device->filename,
                                                                          vmware_can_take_snapshot(device->mode)};
    return nullptr;
}

// Fills the record from what `open` reads.
errdesc_t* fill(const std::string& path, errdesc_t* (*open)(const std::string&, vmxdesc_t*), vhost_record_t* record) {
    cor_assert(record->magic == vhost_record_t::magic_value);
    record->filename = path;
    static_cast<void>(stat(path.c_str(), &record->stat));
    vmxdesc_t vmx;
    RETURN_IF_ERROR(open(path, &vmx));
    copy_texts(vmx, record);
    errdesc_t* const e = copy_disks(vmx, record);
    vmx_close(&vmx);
    return e;
}

}  // namespace

bool vmware_can_take_snapshot(const std::string& mode) {
    return mode != "independent-persistent" && mode != "independent-nonpersistent";
}

errdesc_t* vmware_get_vhost_record(const std::string& vhost_path, vhost_record_t* record) {
    return fill(vhost_path, open_patiently, record);
}

errdesc_t* vmware_get_vhost_record_at_once(const std::string& vhost_path, vhost_record_t* record) {
    return fill(vhost_path, vmx_open, record);
}

}  // namespace mirador
