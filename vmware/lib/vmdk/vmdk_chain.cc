// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmdk/vmdk_chain.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "lib/cor_assert.h"
#include "vmware/lib/vmdk/datastore_containment.h"
#include "vmware/lib/vmdk/datastore_path.h"
#include "vmware/lib/vmdk/vmdk_open.h"

namespace mirador {
namespace {

// A file's identity, whatever name leads to it.
struct file_id_t {
    dev_t device;
    ino_t inode;
    bool operator==(const file_id_t&) const = default;
};

// What has been met between the first disk of a chain and the one looked at.
struct visited_t {
    std::vector<file_id_t> descriptors;
    std::size_t extents = 0;
};

errdesc_t* note_extents(const vmdkdesc_t& disk, visited_t* visited) {
    visited->extents += disk.extentdesc.size();
    if (visited->extents <= vmdk_max_chain_extents)
        return nullptr;
    return errdesc_set_fmt(EINVAL, "More than %zu extents in the chain down to %s", vmdk_max_chain_extents,
                           disk.filename.c_str());
}

errdesc_t* note_visit(const std::string& filename, visited_t* visited) {
    struct stat st {};
    if (stat(filename.c_str(), &st) != 0)
        return errdesc_set_str(errno, filename);
    const file_id_t id{st.st_dev, st.st_ino};
    if (std::ranges::find(visited->descriptors, id) != visited->descriptors.end())
        return errdesc_set_fmt(EINVAL, "The chain of parents returns to %s", filename.c_str());
    visited->descriptors.push_back(id);
    return nullptr;
}

void compare_content_id(const vmdkdesc_t& child, const vmdkdesc_t& parent) {
    if (child.pcid == parent.cid)
        return;
    _errdesc_log(errdesc_set_fmt(ERR_UNMATCHED, "%s expects content id %08x of its parent %s, which has %08x",
                                 child.filename.c_str(), child.pcid, parent.filename.c_str(), parent.cid),
                 ERRDESC_WARNING);
}

errdesc_t* open_parent(const vmdkdesc_t& child, vmdkdesc_t* parent) {
    const std::string path = vmdk_get_path(*child.parentfilenamehint, child.dirname);
    std::string preferred;
    RETURN_IF_ERROR(get_preferred_datastore_path(path, &preferred));
    if (child.on_datastore)
        RETURN_IF_ERROR(datastore_check_file(preferred));
    RETURN_IF_ERROR(vmdk_open_checked(path, descriptor_role_t::ancestor, parent));
    parent->on_datastore = parent->on_datastore || child.on_datastore;
    compare_content_id(child, *parent);
    return nullptr;
}

errdesc_t* get_ancestors(vmdkdesc_t* disk, std::uint32_t depth, visited_t* visited, std::vector<vmdkdesc_t*>* array) {
    cor_assert(disk->magic == vmdkdesc_t::magic_value);
    if (depth >= vmdk_max_ancestors)
        return errdesc_set_fmt(EINVAL, "Length of VMDK ancestors chain for %s has reached the limit (%d)",
                               disk->filename.c_str(), static_cast<int>(vmdk_max_ancestors));
    RETURN_IF_ERROR(note_extents(*disk, visited));
    if (disk->pcid == vmdkdesc_t::no_parent) {
        array->assign(depth + 1, nullptr);
    } else if (disk->pcid != 0 && disk->parentfilenamehint) {
        RETURN_IF_ERROR(note_visit(disk->filename, visited));
        auto parent = std::make_unique<vmdkdesc_t>();
        RETURN_IF_ERROR(open_parent(*disk, parent.get()));
        RETURN_IF_ERROR(get_ancestors(parent.get(), depth + 1, visited, array));
        disk->parent = std::move(parent);
    } else {
        return errdesc_set_fmt(EINVAL, "VMDK descriptor for %s (%d) is corrupted", disk->filename.c_str(),
                               static_cast<int>(depth));
    }
    (*array)[depth] = disk;
    return nullptr;
}

}  // namespace

errdesc_t* vmdk_get_ancestors(vmdkdesc_t* vmdkdesc, std::uint32_t depth, std::vector<vmdkdesc_t*>* array) {
    visited_t visited;
    return get_ancestors(vmdkdesc, depth, &visited, array);
}

std::span<vmdkdesc_t* const> vmdk_mapped_disks(vmdkdesc_t* vmdkdesc) {
    const std::span<vmdkdesc_t* const> chain = vmdkdesc->vmdk_ancestor_array;
    cor_assert(!chain.empty() && chain.front() == vmdkdesc);
    if (vmdkdesc->datastore_direct)
        return chain;
    cor_assert(!vmdkdesc->extentdesc.empty());
    vmdkdesc->extentdesc.front()->extenttype = ET_FLAT;
    return chain.first(1);
}

errdesc_t* vmdk_get_root_vmdk(const std::string& path, std::string* rootpath, bool* thin) {
    vmdkdesc_t disk;
    RETURN_IF_ERROR(vmdk_open_checked(path, descriptor_role_t::head, &disk));
    std::vector<vmdkdesc_t*> chain;
    RETURN_IF_ERROR(vmdk_get_ancestors(&disk, 0, &chain));
    *rootpath = chain.back()->filename;
    *thin = chain.back()->thin_provisioned;
    return nullptr;
}

}  // namespace mirador
