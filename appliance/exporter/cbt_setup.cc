// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/cbt_setup.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "appliance/exporter/cbt_changeid.h"
#include "appliance/exporter/cbt_files.h"
#include "appliance/exporter/cbt_results.h"
#include "appliance/exporter/cbt_script.h"
#include "appliance/exporter/cbt_vdisk.h"
#include "appliance/exporter/export_names.h"
#include "appliance/exporter/stats_thr.h"
#include "appliance/lib/devmap.h"
#include "appliance/lib/loopdev.h"
#include "appliance/lib/registry.h"
#include "appliance/mounter/vmdkmount.h"
#include "controller/lib/controller.h"
#include "lib/fault_point.h"
#include "lib/log.h"
#include "lib/tool_paths.h"
#include "vmware/lib/vmdk/chain_check.h"
#include "vmware/lib/vmdk/vmdk_chain.h"
#include "vmware/lib/vmdk/vmdk_extent.h"
#include "vmware/lib/vmdk/vmdk_open.h"

namespace mirador {
namespace {

bool debugs() {
    return get_reg_settings()->cbt_debug_enabled;
}

// What a changed-block file may stand beside, in the order in which it is looked for.
constexpr const char* flat_endings[] = {"-flat.vmdk", "-rdm.vmdk"};

errdesc_t* get_vm(cbt_setup_t* setup) {
    RETURN_IF_ERROR(controller_get_vm(&setup->vm, setup->header.vm_uuid));
    const char* path = setup->path.c_str();
    if (setup->vm == nullptr)
        return errdesc_set_fmt(EINVAL, "VM info not available for path %s", path);
    if (!setup->vm->use_cbt)
        return errdesc_set_fmt(EINVAL, "Changed Block Tracking disabled, invalid path %s", path);
    if (ks_text(setup->vm->vm_name).empty())
        return errdesc_set_fmt(EINVAL, "Invalid path %s", path);
    return nullptr;
}

errdesc_t* find_flat_disk(cbt_setup_t* setup) {
    struct stat st {};
    for (const char* ending : flat_endings) {
        RETURN_IF_ERROR(corcbt_to_export_file(setup->path, ending, &setup->export_flat));
        if (stat(setup->export_flat.c_str(), &st) == 0) {
            setup->flat_size = st.st_size;
            return nullptr;
        }
    }
    return errdesc_set_extended_err(errno, setup->export_flat);
}

// Opens the disk through the daemon's own mount and binds it. It stays open, and the VM's snapshot with it, as long as
// the loop device is bound.
errdesc_t* bind_flat_disk(cbt_setup_t* setup) {
    std::string losetup_file;
    RETURN_IF_ERROR(export_to_losetup_file(setup->export_flat, &losetup_file));
    std::string* loopdev = &setup->device->cbt_main_loop_dev;
    if (debugs())
        ts_printf("corcbt_setup calling vdsk_assign_next_loop_dev: %s\n", losetup_file.c_str());
    errdesc_t* e = vdsk_assign_next_loop_dev(losetup_file, true, loopdev_timeout, loopdev);
    if (e != nullptr) {
        ts_printf("corcbt_setup error from vdsk_assign_next_loop_dev\n");
        return errdesc_set_extended_err(e->number, losetup_file);
    }
    if (debugs())
        ts_printf("corcbt_setup created cbt_main_loop_dev: %s\n", loopdev->c_str());
    return nullptr;
}

// The snapshot has moved the VM's disks. The path may also have become another VM's, whose disk is bound then.
errdesc_t* read_header_anew(cbt_setup_t* setup) {
    std::unique_ptr<vm_proxy_header_t> now;
    RETURN_IF_ERROR(vm_proxy_read_header_checked(setup->shadow_path, &now));
    if (now->type != setup->header.type || std::strcmp(now->vm_uuid, setup->header.vm_uuid) != 0)
        return errdesc_set_fmt(EBUSY, "%s: another disk has taken this path", setup->path.c_str());
    setup->header = *now;
    return nullptr;
}

// The disk may have grown before the snapshot froze it. The next open finds it as large as it is.
errdesc_t* check_flat_size(const cbt_setup_t& setup) {
    std::unique_ptr<vm_proxy_header_t> flat;
    const std::string flat_shadow = setup.shadow_path.substr(0, setup.shadow_path.rfind('-')) +
                                    setup.export_flat.substr(setup.export_flat.rfind('-'));
    RETURN_IF_ERROR(vm_proxy_read_header_checked(flat_shadow, &flat));
    if (flat->statb.size != setup.flat_size)
        return errdesc_set_fmt(EAGAIN, "%s: its size has changed", setup.export_flat.c_str());
    return nullptr;
}

errdesc_t* open_chain(const std::string& path, vdskdesc_t* vdskdesc) {
    vmdkdesc_t& disk = vdskdesc->vmdkdesc;
    RETURN_IF_ERROR(vmdk_open_checked(path, descriptor_role_t::head, &disk));
    RETURN_IF_ERROR(vmdk_get_ancestors(&disk, 0, &disk.vmdk_ancestor_array));
    RETURN_IF_ERROR(vmdk_check_chain(&disk));
    vmdk_emit_dm_table_free(&disk);
    vdskdesc->vdsk_extent_path = vmdk_extent_path(disk, 0);
    return nullptr;
}

errdesc_t* open_corcbt_setup(cbt_setup_t* setup) {
    RETURN_IF_ERROR(get_vm(setup));
    RETURN_IF_ERROR(find_flat_disk(setup));
    RETURN_IF_ERROR(bind_flat_disk(setup));
    RETURN_IF_ERROR(fault_point("cbt.bound"));
    RETURN_IF_ERROR(read_header_anew(setup));
    RETURN_IF_ERROR(check_flat_size(*setup));
    dm_mk_unique_name("cbt", &setup->dm_name);
    RETURN_IF_ERROR(open_chain(setup->header.path, &setup->device->vdskdesc));
    return get_cbt_vdisk(setup->header.vm_uuid, setup->disk_name, &setup->vdisk);
}

// What follows from a script that brought no list; null when the open may go on, without a change id then.
errdesc_t* handle_script_failure(const cbt_setup_t& setup, errdesc_t* e) {
    if (e->number == cbt_no_changeid)
        return setup.vdisk != nullptr && cbt_has_changeid(setup.vdisk->changeid_incr) ? e : nullptr;
    if (e->number != cbt_needs_reset)
        return e;
    const errdesc_keeper_t keep;
    if (post_cbt_reset_event(setup.header.vm_uuid) == nullptr)
        ts_printf("open_corcbt: requested auto %s reset for: %s\n", "Changed Block Tracking",
                  ks_text(setup.vm->vm_name).c_str());
    else
        ts_printf("open_corcbt: failed to update vm_config table\n");
    return e;
}

// A script that ended well but wrote nothing has not told that nothing has changed.
errdesc_t* read_changes(const std::string& results_path, cbt_setup_t* setup) {
    RETURN_IF_ERROR(cbt_process_list(results_path, false, &setup->extents, &setup->changeid));
    if (setup->extents.empty() && setup->changeid.empty())
        return errdesc_set_str(ERR_INVALID_ARG, "Invalid cbt results");
    return nullptr;
}

// Asks what has changed. *no_changeid: the disk has no change id.
errdesc_t* get_changes(cbt_setup_t* setup, bool* no_changeid) {
    cbt_request_t request;
    request.hv_name = setup->header.hv_name;
    request.vm_uuid = setup->header.vm_uuid;
    request.vmdk_path = setup->header.path;
    request.dm_name = setup->dm_name;
    request.size = setup->flat_size;
    request.vdisk = setup->vdisk.get();
    std::string results_path;
    errdesc_t* e = cbt_get_block_list(request, &results_path);
    if (e != nullptr) {
        *no_changeid = e->number == cbt_no_changeid;
        e = handle_script_failure(*setup, e);
    } else {
        e = read_changes(results_path, setup);
        if (e != nullptr)
            ts_printf("open_corcbt error return from cbt_process_list\n");
    }
    const errdesc_keeper_t keep;
    cbt_remove_work_file(results_path);
    return e;
}

errdesc_t* check_changeid(const cbt_setup_t& setup, bool no_changeid) {
    return check_cbt_changeid(setup.header.vm_uuid, setup.disk_name, setup.changeid, setup.vdisk.get(), *setup.vm,
                              no_changeid);
}

// The change id since which the file tells the changes, as the script was asked; where it was asked for all that the
// disk holds, the present one.
std::string changeid_of_file(const cbt_setup_t& setup) {
    if (setup.vdisk == nullptr)
        return setup.changeid;
    const ks_vdisk_t& vdisk = *setup.vdisk;
    if (cbt_has_changeid(vdisk.changeid_incr) && ks_text(vdisk.changeid_incr) != "reseed")
        return ks_text(vdisk.changeid_incr);
    return cbt_has_changeid(vdisk.changeid_base) ? ks_text(vdisk.changeid_base) : setup.changeid;
}

void print_header(const cbt_setup_t& setup, const std::string& changeid, const cbt_file_header_t& header) {
    if (!debugs())
        return;
    const ks_vdisk_t none;
    const ks_vdisk_t& vdisk = setup.vdisk == nullptr ? none : *setup.vdisk;
    ts_printf("make_cbt_header changeid:      %s\n", setup.changeid.c_str());
    ts_printf("make_cbt_header changeid_incr: %s\n", ks_text(vdisk.changeid_incr).c_str());
    ts_printf("make_cbt_header changeid_base: %s\n", ks_text(vdisk.changeid_base).c_str());
    ts_printf("make_cbt_header using changeid_val %s\n", changeid.c_str());
    ts_printf("make_cbt_header total_change_size: %jd\n", static_cast<std::intmax_t>(header.total_change_size));
    ts_printf("make_cbt_header corcbt_file_size: %jd\n", static_cast<std::intmax_t>(header.corcbt_file_size));
}

// More than the file promises would be cut off unseen. The next open finds more room.
errdesc_t* check_size(const cbt_setup_t& setup, const cbt_file_header_t& header) {
    const std::uint32_t percent =
        setup.vdisk == nullptr ? corcbt_default_size_percent : setup.vdisk->corcbt_size_percentage;
    std::uint32_t raised = percent;
    errdesc_t* e = check_corcbt_size_percent(header, setup.header.statb.size, percent, &raised);
    if (e == nullptr)
        return nullptr;
    const errdesc_keeper_t keep;
    if (errdesc_t* failed = raise_cbt_vdisk_percentage(setup.header.vm_uuid, setup.disk_name, raised))
        _errdesc_log(failed, ERRDESC_ERROR);
    return e;
}

errdesc_t* make_device(cbt_setup_t* setup) {
    const std::string changeid = changeid_of_file(*setup);
    cbt_file_header_t header{};
    std::string bytes;
    RETURN_IF_ERROR(build_corcbt_header(setup->extents, changeid, setup->disk_name, setup->flat_size, &header, &bytes));
    print_header(*setup, changeid, header);
    RETURN_IF_ERROR(check_size(*setup, header));
    setup->corcbt_file_size = header.corcbt_file_size;
    stats_thr_update_cbt(setup->path, &header);
    RETURN_IF_ERROR(make_cbt_header_dev(bytes, setup->dm_name, &setup->device->cbt_hdr_loop_dev));
    RETURN_IF_ERROR(fault_point("cbt.header"));
    RETURN_IF_ERROR(
        make_cbt_dm_device(header, setup->extents, setup->header.statb.size, setup->dm_name, setup->device.get()));
    return fault_point("cbt.loaded");
}

}  // namespace

errdesc_t* cbt_set_up(cbt_setup_t* setup) {
    bool no_changeid = false;
    RETURN_IF_ERROR(open_corcbt_setup(setup));
    RETURN_IF_ERROR(get_changes(setup, &no_changeid));
    RETURN_IF_ERROR(check_changeid(*setup, no_changeid));
    return make_device(setup);
}

errdesc_t* cbt_note_changeid(const cbt_setup_t& setup) {
    if (setup.changeid.empty())
        return nullptr;
    RETURN_IF_ERROR(update_cbt_vdisk(setup.header.vm_uuid, setup.disk_name, setup.changeid));
    RETURN_IF_ERROR(fault_point("cbt.noted"));
    const std::string exported = tool_paths().export_root + setup.path;
    struct stat st {};
    if (stat(exported.c_str(), &st) != 0)
        ts_printf("open_corcbt: cannot refresh %s: %s\n", exported.c_str(), errnum_text(errno).c_str());
    return nullptr;
}

void cbt_undo(cbt_setup_t* setup) {
    const errdesc_keeper_t keep;
    setup->device.reset();
    reset_cbt_vdisk_path(setup->header.vm_uuid, setup->path);
}

}  // namespace mirador
