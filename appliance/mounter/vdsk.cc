// SPDX-License-Identifier: Apache-2.0
#include "appliance/mounter/vdsk.h"

#include <cerrno>
#include <string_view>

#include "appliance/lib/devmap.h"
#include "appliance/lib/loopdev.h"
#include "appliance/mounter/table_file.h"
#include "appliance/mounter/vmdkmount.h"
#include "lib/cor_assert.h"
#include "lib/tool_paths.h"
#include "vmware/lib/vmdk/chain_check.h"
#include "vmware/lib/vmdk/datastore_containment.h"
#include "vmware/lib/vmdk/datastore_path.h"
#include "vmware/lib/vmdk/vmdk_chain.h"
#include "vmware/lib/vmdk/vmdk_extent.h"
#include "vmware/lib/vmdk/vmdk_open.h"

namespace mirador {
namespace {

constexpr std::string_view name_prefix = "vdsk";
// Files of this kind in the temporary directory are removed when the daemon starts after a crash.
constexpr std::string_view table_suffix = ".corstorage";

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

// Whether the tool was ended from outside and so may have loaded the table after all.
bool may_have_loaded(const errdesc_t& e) {
    return e.number == ETIME || e.number == EINVAL;
}

errdesc_t* map_chain(vdskdesc_t* vdskdesc) {
    std::string name;
    dm_mk_unique_name(std::string(name_prefix), &name);
    table_file_t table(tool_paths().tmp_dir + "/" + name + std::string(table_suffix));
    RETURN_IF_ERROR(write_table(vdskdesc, &table));
    errdesc_t* e = define_devmap_device(table.path(), name, &vdskdesc->devicemapper_path);
    if (e == nullptr || may_have_loaded(*e))
        vdskdesc->dm_name = name;
    return e;
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

// A device that is in use gives up its loop devices when its removal is forced.
void remove_mapping(const std::string& name) {
    errdesc_t* e = remove_devmap_device(name, false);
    if (e == nullptr)
        return;
    log_failure(e);
    log_failure(remove_devmap_device(name, true));
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
    if (!vdskdesc->dm_name.empty())
        remove_mapping(vdskdesc->dm_name);
    for (; !vdskdesc->loopdevs.empty(); vdskdesc->loopdevs.pop_back())
        log_failure(vdsk_release_loop_dev(vdskdesc->loopdevs.back()));
    vmdk_close(&vdskdesc->vmdkdesc);
    vdskdesc->dm_name.clear();
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
