// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmdk/descriptor_check.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <limits>

#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/file_io.h"
#include "vmware/lib/vmdk/datastore_containment.h"
#include "vmware/lib/vmdk/vmdk_parse.h"

namespace mirador {
namespace {

constexpr std::uint32_t mappable_types = et_flat_mask | et_sparse_mask;
constexpr std::uint64_t max_sectors = static_cast<std::uint64_t>(std::numeric_limits<off_t>::max()) / sector_size;
// A path may still move below a longer mount root before it is opened.
constexpr std::size_t room_for_root = 64;

// The fault stands before the path, so that a long path cannot push it out of the text.
errdesc_t* refuse(const std::string& path, const std::string& fault) {
    return errdesc_set_fmt(EINVAL, "VMDK descriptor refused, %s: %s", fault.c_str(), path.c_str());
}

errdesc_t* refuse_extent(const std::string& path, std::size_t index, const char* fault) {
    return refuse(path, cor_format("extent %zu %s", index, fault));
}

// Looks before it opens, so that no device is touched; a file swapped in between is looked at again, and a FIFO does
// not block.
errdesc_t* open_regular(const std::string& path, file_ptr* stream) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0)
        return errdesc_set_str(errno, path);
    if (!S_ISREG(st.st_mode))
        return refuse(path, "not a regular file");
    unique_fd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!fd || fstat(fd.get(), &st) != 0)
        return errdesc_set_str(errno, path);
    if (!S_ISREG(st.st_mode))
        return refuse(path, "not a regular file");
    stream->reset(fdopen(fd.get(), "r"));
    if (!*stream)
        return errdesc_set_str(errno, path);
    static_cast<void>(fd.release());
    return nullptr;
}

errdesc_t* read_descriptor(std::FILE* stream, const std::string& path, vmdkdesc_t* vmdkdesc) {
    vmdk_parse_faults_t faults;
    errdesc_t* e = vmdk_parse_stream_checked(stream, path, vmdkdesc, &faults);
    if (faults.too_many_extents)
        return refuse(path, cor_format("more than %zu extents", vmdkdesc_t::max_extents));
    if (faults.too_long)
        return refuse(path, "text too long");
    if (e != nullptr)
        return e;
    if (faults.lost_extents > 0)
        return refuse(path, cor_format("%u extent lines cannot be read", faults.lost_extents));
    if (faults.overlong_names > 0)
        return refuse(path, cor_format("a file name of more than %zu characters", vmdk_max_name));
    if (faults.two_texts)
        return refuse(path, cor_format("two texts with extents, the first damaged"));
    return nullptr;
}

// The length of the path that a name in the descriptor stands for.
std::size_t named_path_length(const std::string& path, const std::string& name) {
    const std::size_t directory = name.starts_with('/') ? 0 : path.size() - last_component(path).size() + 1;
    return directory + name.size();
}

errdesc_t* check_name(const std::string& path, const std::string& name) {
    if (named_path_length(path, name) + room_for_root >= path_size)
        return refuse(path, "the path of an extent or parent is too long");
    return nullptr;
}

errdesc_t* check_extent(const std::string& path, std::size_t index, const extentdesc_t& extent,
                        descriptor_role_t role) {
    const bool raw_mapping = extent.extenttype == ET_VMFSRDM;
    if (raw_mapping && role == descriptor_role_t::ancestor)
        return refuse_extent(path, index, "of a parent disk is a raw device mapping");
    if (!raw_mapping && (extent.extenttype & mappable_types) == 0)
        return refuse_extent(path, index, "is of a type that cannot be mapped");
    if (extent.extentsize == 0)
        return refuse_extent(path, index, "has no size");
    if (extent.extentsize > max_sectors - extent.extentoffset)
        return refuse_extent(path, index, "makes the disk too large");
    const bool offset_cut = extent.version == std::numeric_limits<std::uint32_t>::max();
    if (offset_cut || extent.extentsize > max_sectors - extent.version)
        return refuse_extent(path, index, "begins too far inside its file");
    return check_name(path, extent.extentname);
}

}  // namespace

errdesc_t* vmdk_check_descriptor(const std::string& path, descriptor_role_t role, vmdkdesc_t* vmdkdesc) {
    cor_assert(vmdkdesc);
    file_ptr stream;
    RETURN_IF_ERROR(open_regular(path, &stream));
    const bool on_datastore = is_on_datastore(path) || datastore_check_opened(fileno(stream.get()), path) == nullptr;
    RETURN_IF_ERROR(read_descriptor(stream.get(), path, vmdkdesc));
    vmdkdesc->on_datastore = on_datastore;
    if (vmdkdesc->extentdesc.empty())
        return refuse(path, "no extents");
    for (std::size_t i = 0; i < vmdkdesc->extentdesc.size(); ++i)
        RETURN_IF_ERROR(check_extent(path, i, *vmdkdesc->extentdesc[i], role));
    if (vmdkdesc->parentfilenamehint)
        return check_name(path, *vmdkdesc->parentfilenamehint);
    return nullptr;
}

}  // namespace mirador
