// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmdk/vmdk_extent.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "vmware/lib/vmdk/datastore_containment.h"
#include "vmware/lib/vmdk/vmdk_graindir.h"
#include "vmware/lib/vmdk/vmdk_open.h"

namespace mirador {
namespace {

// A name for what a descriptor is open on, whatever has happened to its path since.
std::string path_of_fd(int fd) {
    return cor_format("/proc/self/fd/%d", fd);
}

// Turns down what the descriptor may not name. `located` is open on the file without having opened its contents.
errdesc_t* check_extentfile(const vmdkdesc_t& vmdkdesc, int located, const std::string& path) {
    struct stat st {};
    if (fstat(located, &st) != 0)
        return errdesc_set_str(errno, path);
    if (!S_ISREG(st.st_mode) && !S_ISBLK(st.st_mode))
        return errdesc_set_fmt(EINVAL, "%s is not a file with data", path.c_str());
    return vmdkdesc.on_datastore ? datastore_check_opened(located, path) : nullptr;
}

// A block device's status has no size, its end has.
errdesc_t* note_size(extentdesc_t* extent, const std::string& path) {
    const off_t size = lseek(extent->fd.get(), 0, SEEK_END);
    if (size < 0)
        return errdesc_set_str(errno, path);
    extent->file_sectors = static_cast<std::uint64_t>(size) / sector_size;
    return nullptr;
}

errdesc_t* open_checked(const vmdkdesc_t& vmdkdesc, const std::string& path, extentdesc_t* extent) {
    const unique_fd located(open(path.c_str(), O_PATH | O_CLOEXEC));
    if (!located)
        return errdesc_set_str(errno, path);
    RETURN_IF_ERROR(check_extentfile(vmdkdesc, located.get(), path));
    extent->fd.reset(open(path_of_fd(located.get()).c_str(), O_RDONLY | O_CLOEXEC));
    if (!extent->fd)
        return errdesc_set_str(errno, path);
    return note_size(extent, path);
}

errdesc_t* open_all(vmdkdesc_t* vmdkdesc) {
    for (std::uint32_t i = 0; i < vmdkdesc->extentdesccount(); ++i)
        RETURN_IF_ERROR(vmdk_open_extentfile(vmdkdesc, i));
    return vmdk_open_graindir(vmdkdesc);
}

}  // namespace

std::string vmdk_extent_path(const vmdkdesc_t& vmdkdesc, std::uint32_t extent_index) {
    return vmdk_get_path(vmdkdesc.extentdesc.at(extent_index)->extentname, vmdkdesc.dirname);
}

errdesc_t* vmdk_open_extentfile(vmdkdesc_t* vmdkdesc, std::uint32_t extent_index) {
    extentdesc_t& extent = *vmdkdesc->extentdesc.at(extent_index);
    if (extent.fd)
        return nullptr;
    errdesc_t* e = open_checked(*vmdkdesc, vmdk_extent_path(*vmdkdesc, extent_index), &extent);
    if (e != nullptr)
        _errdesc_print(e, ERRDESC_ERROR);
    return e;
}

errdesc_t* vmdk_open_extentfiles(vmdkdesc_t* vmdkdesc) {
    errdesc_t* e = open_all(vmdkdesc);
    if (e != nullptr) {
        const errdesc_keeper_t keep;
        vmdk_close_extentfiles(vmdkdesc);
    }
    return e;
}

void vmdk_close_extentfiles(vmdkdesc_t* vmdkdesc) {
    for (const auto& extent : vmdkdesc->extentdesc)
        extent->fd.reset();
}

errdesc_t* vmdk_read_extent_header(extentdesc_t* extent) {
    if (extent->hdr_size != 0)
        return nullptr;
    cor_assert(extent->fd);
    std::size_t done = 0;
    if (errdesc_t* e = cor_pread(extent->fd.get(), &extent->hdr, sizeof extent->hdr.cow, 0, &done))
        return errdesc_set_str(e->number, extent->extentname);
    extent->hdr_size = static_cast<std::uint32_t>(done);
    return nullptr;
}

}  // namespace mirador
