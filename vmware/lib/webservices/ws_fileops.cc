// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/webservices/ws_fileops.h"

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <utility>

#include "lib/cor_assert.h"
#include "lib/log.h"
#include "vmware/lib/webservices/ws_marshal.h"

namespace mirador {
namespace {

struct type_name_t {
    fdesc_type_t type;
    const char* name;
};

constexpr type_name_t type_names[] = {
    {FDESC_IGNORE, "IGNORE"},
    {FDESC_LOGFILE, "logFile"},
    {FDESC_VMXFILE, "vmxFile"},
    {FDESC_CONFIGFILE, "configFile"},
    {FDESC_DISKDESCRIPTORFILE, "diskDescriptorFile"},
    {FDESC_DISKEXTENTFILE, "diskExtentFile"},
    {FDESC_SNAPSHOTDATAFILE, "snapshotDataFile"},
    {FDESC_SNAPSHOTLISTFILE, "snapshotListFile"},
    {FDESC_SWAPFILE, "swapFile"},
    {FDESC_VMSSFILE, "vmssFile"},
    {FDESC_NVRAMFILE, "nvramFile"},
    {FDESC_DIRECTORY, "directory"},
};

// May be missing: never fails.
void marshal_moref(jdr_op_t op, json_object* obj, std::optional<std::string>* moref) {
    if (op == JDR_ENCODE && !*moref)
        return;
    std::string text = moref->value_or("");
    const bool is_there = jdr_text(op, &obj, "vm_moref", &text) >= 0 && op != JDR_FREE;
    *moref = is_there ? std::optional(std::move(text)) : std::nullopt;
}

ssize_t marshal_mtime(jdr_op_t op, json_object* obj, std::time_t* mtime) {
    auto seconds = static_cast<std::uint32_t>(*mtime);
    const ssize_t size = jdr_uint32(op, &obj, "mtime", &seconds);
    *mtime = seconds;
    return size;
}

// In the order of the wire.
bool marshal_fields(jdr_op_t op, json_object* obj, esx_file_desc_t* fd) {
    if (jdr_text(op, &obj, "dc_name", &fd->dc_name) < 0 || jdr_text(op, &obj, "ds_name", &fd->ds_name) < 0)
        return false;
    marshal_moref(op, obj, &fd->vm_moref);
    return jdr_text(op, &obj, "folder", &fd->file_folder) >= 0 && jdr_text(op, &obj, "name", &fd->file_name) >= 0 &&
           jdr_text(op, &obj, "type", &fd->file_type_str) >= 0 && marshal_mtime(op, obj, &fd->file_mtime) >= 0 &&
           jdr_int64(op, &obj, "size", &fd->file_bytes) >= 0;
}

}  // namespace

fdesc_type_t fdesc_get_type(const std::string& name) {
    const auto found = std::ranges::find_if(
        type_names, [&](const type_name_t& entry) { return strcasecmp(entry.name, name.c_str()) == 0; });
    return found == std::end(type_names) ? FDESC_UNKNOWN : found->type;
}

ssize_t jdr_fdesc(jdr_op_t op, json_object** obj, const char* key, esx_file_desc_t* fd) {
    const ssize_t size = jdr_record(op, obj, key, fd, marshal_fields);
    if (op == JDR_FREE) {
        fdesc_free(fd);
    } else if (op == JDR_DECODE && size != jdr_failed) {
        fd->file_type = fdesc_get_type(fd->file_type_str);
        fd->magic = fdesc_magic;
        fd->version = fdesc_version;
    }
    return size;
}

void fdesc_copy(const esx_file_desc_t* src, esx_file_desc_t* dst) {
    *dst = *src;
}

void fdesc_free(esx_file_desc_t* fd) {
    *fd = {};
}

void fdesc_dump(const std::string& tag, const esx_file_desc_t& fd) {
    ts_printf(
        "%s: fdesc %p: vm_moref <%s>, ds_name <%s>, dc_name <%s>, file_folder <%s>, file_name <%s>, "
        "file_type <%s>, file_mtime %ld, file_bytes %jd\n",
        tag.c_str(), static_cast<const void*>(&fd), fd.vm_moref ? fd.vm_moref->c_str() : "(null)", fd.ds_name.c_str(),
        fd.dc_name.c_str(), fd.file_folder.c_str(), fd.file_name.c_str(), fd.file_type_str.c_str(),
        static_cast<long>(fd.file_mtime), static_cast<std::intmax_t>(fd.file_bytes));
}

errdesc_t* ws_mkdir(const ks_hypervisor_config_t& hvc, const std::string& datacenter, const std::string& path,
                    bool create_parent) {
    return jrpc_single_call_raw(hvc, {"mkdir", datacenter, path, ws_flag(create_parent)}, nullptr);
}

errdesc_t* ws_unlink(const ks_hypervisor_config_t& hvc, const std::string& datacenter, const std::string& path) {
    return jrpc_single_call_raw(hvc, {"rm", datacenter, path}, nullptr);
}

errdesc_t* ws_cp(const ks_hypervisor_config_t& hvc, const std::string& src_datacenter, const std::string& src_path,
                 const std::string& dest_datacenter, const std::string& dest_path, bool overwrite) {
    return jrpc_single_call_raw(hvc, {"cp", src_datacenter, src_path, dest_datacenter, dest_path, ws_flag(overwrite)},
                                nullptr);
}

errdesc_t* ws_mv(const ks_hypervisor_config_t& hvc, const std::string& src_datacenter, const std::string& src_path,
                 const std::string& dest_datacenter, const std::string& dest_path, bool overwrite) {
    return jrpc_single_call_raw(hvc, {"mv", src_datacenter, src_path, dest_datacenter, dest_path, ws_flag(overwrite)},
                                nullptr);
}

errdesc_t* ws_stat(const ks_hypervisor_config_t& hvc, const std::string& datacenter, const std::string& path,
                   esx_file_desc_t* entry) {
    cor_assert(entry != nullptr);
    json_ptr data;
    RETURN_IF_ERROR(jrpc_single_call_raw(hvc, {"stat", datacenter, path}, &data));
    json_object* obj = data.get();
    esx_file_desc_t found;
    if (jdr_fdesc(JDR_DECODE, &obj, nullptr, &found) < 0)
        return errdesc_set_str(ENOENT, "stat: the agent's reply is no file");
    *entry = std::move(found);
    return nullptr;
}

errdesc_t* ws_ls(const ks_hypervisor_config_t& hvc, const std::string& datacenter, const std::string& path,
                 std::vector<esx_file_desc_t>* file_list) {
    return ws_call_for_list(hvc, {"ls", datacenter, path}, jdr_fdesc, file_list);
}

}  // namespace mirador
