// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/vmx_write_cfg.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "appliance/lib/vmcfg.h"
#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/file_io.h"
#include "lib/file_tree.h"
#include "vmware/lib/vmdk/datastore_path.h"
#include "vmware/lib/vmdk/vmdk_open.h"

namespace mirador {
namespace {

constexpr mode_t cfg_mode = 0777;
constexpr mode_t directory_mode = 0777;

void fill_disk(const vd_state_t& disk, vmcfg_vd_t* vd) {
    vd->name = disk.new_vd_name;
    vd->extentname = disk.new_extent_name;
    if (disk.renamed) {
        vd->rename = disk.old_vd_name;
        vd->extentrename = disk.old_extent_name;
    }
    vd->fpath = disk.root_vd_fpath;
    if (errdesc_t* e =
            parse_datastore_path(disk.root_vd_fpath, &vd->dsname.emplace(), &vd->directory.emplace(), nullptr)) {
        _errdesc_log(errdesc_set_fmt(e->number, "Cannot parse datastore path %s", disk.root_vd_fpath.c_str()),
                     ERRDESC_ERROR);
        cor_assert_text(false, "parse_datastore_path");
    }
    vd->size = static_cast<std::uint64_t>(disk.extent_size);
    vd->type = disk.thinprovisioned ? VDSK_THIN : VDSK_THICK;
}

void fill_vm(const ks_vm_config_t& vmc, const vm_paths_t& paths, vmcfg_t* vmcfg) {
    vmcfg->magic = vmcfg_t::magic_value;
    vmcfg->version = vmcfg_t::version_value;
    vmcfg->vmname = vmc.vm_name;
    vmcfg->vmuuid = vmc.uuid;
    vmcfg->directory = vmdk_get_dir(ks_text(vmc.vmx_path));
    vmcfg->servername = vmc.hv_hostname;
    vmcfg->hostsystem = vmc.host_system;
    vmcfg->resourcepool = vmc.resource_pool;
    vmcfg->dsname = paths.vm_ds_uuid;
    vmcfg->vmxname = last_component(ks_text(vmc.vmx_path));
    vmcfg->on_conflict = VMCFG_CONFLICT_STOP;
}

errdesc_t* fill(const ks_vm_config_t& vmc, const vm_paths_t& paths, const vd_list_t& vd_list, vmcfg_t* vmcfg) {
    fill_vm(vmc, paths, vmcfg);
    std::size_t count = 0;
    list_iter(vd_list, [&](const std::unique_ptr<vd_state_t>& disk) {
        if (count < vmcfg_t::max_disks)
            fill_disk(*disk, malloc_vdsk(vmcfg, count));
        return count++ < vmcfg_t::max_disks;
    });
    if (count > vmcfg_t::max_disks)
        return errdesc_set_fmt(EINVAL, "%s has more than %zu disks", ks_text(vmc.vm_name).c_str(), vmcfg_t::max_disks);
    return cfg_check_record(vmcfg);
}

errdesc_t* print(const std::string& path, const vmcfg_t& vmcfg) {
    (void)mkdirp(vmdk_get_dir(path), directory_mode);  // a failure shows at once
    file_ptr file(std::fopen(path.c_str(), "w+e"));
    if (file == nullptr)
        return errdesc_set_fmt(errno, "Cannot open %s for writing", path.c_str());
    RETURN_IF_ERROR(cfg_print(file.get(), &vmcfg));
    errno = EIO;
    if (std::fflush(file.get()) != 0 || std::ferror(file.get()) != 0)
        return errdesc_set_str(errno, path);
    return nullptr;
}

// The file has the times of the cached VMX file, where there is one.
void copy_times(const std::string& vmx_path, const std::string& cfg_path) {
    struct stat st {};
    if (stat(vmx_path.c_str(), &st) != 0)
        return;
    const timespec times[] = {{st.st_atim.tv_sec, 0}, {st.st_mtim.tv_sec, 0}};
    if (utimensat(AT_FDCWD, cfg_path.c_str(), times, 0) != 0)
        _errdesc_log(errdesc_set_str(errno, cfg_path), ERRDESC_WARNING);
}

}  // namespace

errdesc_t* vmx_write_cfg(const ks_vm_config_t& vmc, const vm_paths_t& paths, const vd_list_t& vd_list) {
    vmcfg_t vmcfg;
    RETURN_IF_ERROR(fill(vmc, paths, vd_list, &vmcfg));
    const std::string& path = paths.vm_cfg_cached_path;
    const std::string temporary = path + ".tmp";
    errdesc_t* e = print(temporary, vmcfg);
    if (e == nullptr && std::rename(temporary.c_str(), path.c_str()) != 0)
        e = errdesc_set_str(errno, path);
    if (e != nullptr) {
        (void)unlink(temporary.c_str());
        return e;
    }
    if (chmod(path.c_str(), cfg_mode) != 0)
        return errdesc_set_str(errno, path);
    copy_times(paths.vm_cached_path, path);
    return nullptr;
}

}  // namespace mirador
