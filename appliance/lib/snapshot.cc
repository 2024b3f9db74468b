// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/snapshot.h"

#include <cerrno>
#include <utility>

#include "lib/cor_assert.h"
#include "vmware/lib/webservices/ws_snapshot.h"

namespace mirador {
namespace {

errdesc_t* refuse(const snapshotdesc_t& desc, const char* fault) {
    return errdesc_set_fmt(EINVAL, "Snapshot '%.100s' of VM '%.100s' refused, %s", desc.snapshotname.c_str(),
                           desc.vmname.c_str(), fault);
}

void check_record(const snapshotdesc_t& desc) {
    cor_assert_text(desc.magic == snapshotdesc_t::magic_value, "desc->magic == 0xeeeeeeff");
    cor_assert_text(desc.version == snapshotdesc_t::version_value, "desc->version == 1");
}

// The session looks at what concerns the hypervisor.
errdesc_t* check_request(const snapshotdesc_t& desc) {
    check_record(desc);
    cor_assert(desc.type == ESX_HYPERVISOR);
    if (desc.vmname.empty())
        return refuse(desc, "VM name missing");
    if (desc.vmuuid.empty())
        return refuse(desc, "VM uuid missing");
    return desc.snapshotname.empty() ? refuse(desc, "snapshot name missing") : nullptr;
}

ks_hypervisor_config_t hypervisor_of(const snapshotdesc_t& desc) {
    return {.hostname = desc.server,
            .login_name = desc.user,
            .password = desc.passwd,
            .hv_port = static_cast<std::uint32_t>(desc.port)};  // what is no port stays none
}

snapshotdesc_t listed(ws_snapshot_desc_t&& entry) {
    snapshotdesc_t desc;
    snapshot_init(&desc);
    desc.snapshotname = std::move(entry.name);
    desc.vmname = std::move(entry.vmname);
    desc.vmuuid = std::move(entry.vmuuid);
    desc.ctime = entry.ctime;
    desc.quiesce = entry.quiesced;
    return desc;
}

}  // namespace

void snapshot_init(snapshotdesc_t* desc) {
    cor_assert(desc != nullptr);
    *desc = {};
    desc->magic = snapshotdesc_t::magic_value;
    desc->version = snapshotdesc_t::version_value;
}

void snapshot_free(snapshotdesc_t* desc) {
    cor_assert(desc != nullptr);
    check_record(*desc);
    *desc = {};
}

errdesc_t* snapshot_create(const snapshotdesc_t& desc, int* create_count) {
    RETURN_IF_ERROR(check_request(desc));
    return esx_snapshot_create(desc, create_count);
}

errdesc_t* snapshot_remove(const snapshotdesc_t& desc, int* remove_count) {
    RETURN_IF_ERROR(check_request(desc));
    return esx_snapshot_remove(desc, remove_count);
}

errdesc_t* snapshot_list(const ks_hypervisor_config_t& hvc, hypervisor_type_t type,
                         const std::string& snapshotname_regex, std::vector<snapshotdesc_t>* list) {
    cor_assert(type == ESX_HYPERVISOR);
    cor_assert(list != nullptr);
    std::vector<ws_snapshot_desc_t> entries;
    RETURN_IF_ERROR(ws_list_snapshot(hvc, snapshotname_regex, &entries));
    list->reserve(list->size() + entries.size());
    for (ws_snapshot_desc_t& entry : entries)
        list->push_back(listed(std::move(entry)));
    return nullptr;
}

errdesc_t* esx_snapshot_create(const snapshotdesc_t& desc, int* create_count) {
    const ks_hypervisor_config_t hvc = hypervisor_of(desc);
    if (create_count == nullptr)
        return ws_create_snapshot(hvc, desc.vmname, desc.vmuuid, desc.snapshotname, desc.quiesce);
    return ws_create_top_snapshot(hvc, desc.vmname, desc.vmuuid, desc.snapshotname, desc.quiesce, create_count);
}

errdesc_t* esx_snapshot_remove(const snapshotdesc_t& desc, int* remove_count) {
    return ws_remove_snapshot(hypervisor_of(desc), desc.vmname, desc.vmuuid, desc.snapshotname, desc.blocking,
                              remove_count);
}

}  // namespace mirador
