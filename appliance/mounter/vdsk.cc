// SPDX-License-Identifier: Apache-2.0
#include "appliance/mounter/vdsk.h"

#include <cerrno>
#include <string_view>

#include "appliance/lib/devmap.h"
#include "appliance/lib/loopdev.h"
#include "appliance/lib/table_file.h"
#include "appliance/mounter/vdsk_mapping.h"
#include "appliance/mounter/vmdkmount.h"
#include "lib/cor_assert.h"
#include "lib/fault_point.h"
#include "vmware/lib/vmdk/chain_check.h"
#include "vmware/lib/vmdk/datastore_containment.h"
#include "vmware/lib/vmdk/datastore_path.h"
#include "vmware/lib/vmdk/vmdk_chain.h"
#include "vmware/lib/vmdk/vmdk_extent.h"
#include "vmware/lib/vmdk/vmdk_open.h"

namespace mirador {
namespace {

constexpr std::string_view name_prefix = "vdsk";

errdesc_t* open_chain(const std::string& path, vmdkdesc_t* vmdkdesc) {
    std::string preferred;
    RETURN_IF_ERROR(get_preferred_datastore_path(path, &preferred));
    RETURN_IF_ERROR(datastore_check_contained(preferred, preferred));
    RETURN_IF_ERROR(vmdk_open_checked(path, descriptor_role_t::head, vmdkdesc));
    RETURN_IF_ERROR(vmdk_get_ancestors(vmdkdesc, 0, &vmdkdesc->vmdk_ancestor_array));
    return vmdk_check_chain(vmdkdesc);
}

// The loop devices that building the table has bound, all of them or as many as it came to.
void note_loopdevs(vdskdesc_t* vdskdesc) {
    for (const vmdkdesc_t* disk : vdskdesc->vmdkdesc.vmdk_ancestor_array) {
        for (const auto& extent : disk->extentdesc) {
            if (!extent->loopdev.empty())
                vdskdesc->loopdevs.push_back(extent->loopdev);
        }
    }
}

errdesc_t* write_table(vdskdesc_t* vdskdesc, table_file_t* table) {
    RETURN_IF_ERROR(table->create());
    errdesc_t* e = vmdk_emit_dm_table(table->stream(), &vdskdesc->vmdkdesc, &vdskdesc->stats);
    note_loopdevs(vdskdesc);
    vmdk_emit_dm_table_free(&vdskdesc->vmdkdesc);
    return e != nullptr ? e : table->finish();
}

errdesc_t* map_chain(vdskdesc_t* vdskdesc) {
    std::string name;
    dm_mk_unique_name(std::string(name_prefix), &name);
    table_file_t table(vdsk_table_path(name));
    RETURN_IF_ERROR(write_table(vdskdesc, &table));
    RETURN_IF_ERROR(fault_point("map.bound"));
    RETURN_IF_ERROR(vdsk_load_mapping(name, table.path(), vdskdesc));
    return fault_point("map.loaded");
}

errdesc_t* build(const std::string& path, vdskdesc_t* vdskdesc) {
    RETURN_IF_ERROR(open_chain(path, &vdskdesc->vmdkdesc));
    vdskdesc->vdsk_extent_path = vmdk_extent_path(vdskdesc->vmdkdesc, 0);
    return map_chain(vdskdesc);
}

void log_failure(errdesc_t* e) {
    if (e != nullptr)
        _errdesc_log(e, ERRDESC_ERROR);
}

}  // namespace

vdskdesc_t::~vdskdesc_t() {
    vdsk_teardown(this);
}

errdesc_t* vdsk_setup(const std::string& path, std::unique_ptr<vdskdesc_t>* vdskdesc) {
    cor_assert(vdskdesc != nullptr && *vdskdesc == nullptr);
    auto disk = std::make_unique<vdskdesc_t>();
    errdesc_t* e = build(path, disk.get());
    if (e == nullptr) {
        *vdskdesc = std::move(disk);
        return nullptr;
    }
    // The system's limit on open files is answered as this process's own: by closing another disk.
    if (e->number == ENFILE)
        e->number = EMFILE;
    disk.reset();
    return e;
}

void vdsk_teardown(vdskdesc_t* vdskdesc) {
    cor_assert(vdskdesc->magic == vdskdesc_t::magic_value);
    const errdesc_keeper_t keep;
    vdsk_free_volume_groups(&vdskdesc->volume_groups);
    vdsk_free_partitions(&vdskdesc->partitions);
    vdsk_remove_mapping(vdskdesc);
    fault_moment("unmap.removed");
    for (; !vdskdesc->loopdevs.empty(); vdskdesc->loopdevs.pop_back())
        log_failure(vdsk_release_loop_dev(vdskdesc->loopdevs.back()));
    vmdk_close(&vdskdesc->vmdkdesc);
    vdskdesc->devicemapper_path.clear();
    vdskdesc->vdsk_extent_path.clear();
}

const vdsk_stats_t& vmdk_get_vdsk_stats(const vdskdesc_t& vdskdesc) {
    return vdskdesc.stats;
}

const std::string& vmdk_get_name(const vdskdesc_t& vdskdesc) {
    return vdskdesc.dm_name;
}

cor_uuid_t vmdk_get_uuid(const vdskdesc_t& vdskdesc) {
    const auto& chain = vdskdesc.vmdkdesc.vmdk_ancestor_array;
    cor_assert(!chain.empty());
    cor_uuid_t uuid{};
    return uuid_str_to_value(chain.back()->diskdb.uuid, &uuid) ? uuid : cor_uuid_t{};
}

}  // namespace mirador
