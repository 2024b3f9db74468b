// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmdk/vmdk_open.h"

#include <cerrno>
#include <filesystem>
#include <functional>

#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "vmware/lib/vmdk/datastore_containment.h"
#include "vmware/lib/vmdk/datastore_path.h"
#include "vmware/lib/vmdk/vmdk_parse.h"

namespace mirador {
namespace {

using reader_t = std::function<errdesc_t*(const std::string& path, vmdkdesc_t* vmdkdesc)>;

errdesc_t* vmdk_read_diskdescriptor(const std::string& path, const reader_t& read, vmdkdesc_t* vmdkdesc) {
    RETURN_IF_ERROR(read(path, vmdkdesc));
    vmdkdesc->dirname = vmdk_get_dir(path);
    cor_assert(vmdkdesc->dirname.size() < path_size);
    return nullptr;
}

errdesc_t* open_with(const std::string& path, const reader_t& read, vmdkdesc_t* vmdkdesc) {
    *vmdkdesc = {};
    std::string preferred;
    RETURN_IF_ERROR(get_preferred_datastore_path(path, &preferred));
    if (errdesc_t* e = vmdk_read_diskdescriptor(preferred, read, vmdkdesc)) {
        vmdk_close(vmdkdesc);
        return e;
    }
    vmdkdesc->datastore_direct = !is_datastore_fs_path(preferred);
    vmdkdesc->on_datastore = vmdkdesc->on_datastore || is_on_datastore(preferred);
    vmdkdesc->filename = std::move(preferred);
    vmdkdesc->magic = vmdkdesc_t::magic_value;
    return nullptr;
}

// The parser's text names no file, and in a chain it may be any.
errdesc_t* tell_unparsable(errdesc_t* e, const std::string& path) {
    const errdesc_keeper_t keep;
    _errdesc_print(errdesc_set_fmt(e->number, "No descriptor text: %s", path.c_str()), ERRDESC_WARNING);
    return e;
}

}  // namespace

errdesc_t* vmdk_open(const std::string& path, vmdkdesc_t* vmdkdesc) {
    return open_with(path, vmdk_parse_file_contents, vmdkdesc);
}

errdesc_t* vmdk_open_checked(const std::string& path, descriptor_role_t role, vmdkdesc_t* vmdkdesc) {
    const auto read = [role](const std::string& preferred, vmdkdesc_t* record) {
        errdesc_t* e = vmdk_check_descriptor(preferred, role, record);
        return e != nullptr && e->number == EAGAIN ? tell_unparsable(e, preferred) : e;
    };
    return open_with(path, read, vmdkdesc);
}

void vmdk_close(vmdkdesc_t* vmdkdesc) {
    vmdk_free_vmdkdesc(vmdkdesc);
}

std::string vmdk_get_dir(const std::string& path) {
    const std::string dir = std::filesystem::path(path).parent_path();
    return dir.empty() ? "." : dir;
}

std::string vmdk_get_path(const std::string& name, const std::string& dir) {
    return name.starts_with('/') ? name : dir + "/" + name;
}

std::uint64_t vmdk_size(const vmdkdesc_t& vmdkdesc) {
    cor_assert(vmdkdesc.magic == vmdkdesc_t::magic_value);
    std::uint64_t sectors = 0;
    for (const auto& extent : vmdkdesc.extentdesc)
        sectors += extent->extentsize;
    return sectors * sector_size;
}

errdesc_t* vmdk_stat(const vmdkdesc_t& vmdkdesc, struct stat* statb) {
    const std::uint64_t size = vmdk_size(vmdkdesc);
    if (stat(vmdkdesc.filename.c_str(), statb) != 0)
        return errdesc_set_str(errno, vmdkdesc.filename);
    statb->st_size = static_cast<off_t>(size);
    statb->st_blocks = static_cast<blkcnt_t>(size / sector_size);
    return nullptr;
}

}  // namespace mirador
