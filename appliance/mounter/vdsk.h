// SPDX-License-Identifier: Apache-2.0
// An opened virtual disk: its chain of descriptors, the block device that maps the chain, and what was found on it.
//
// vdsk_setup builds it, vdsk_teardown (or the destructor) takes it apart: first the mapping, then the loop devices
// under it. A record belongs to one thread at a time; different disks may be set up in different threads.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "appliance/mounter/vdsk_partitions.h"
#include "appliance/mounter/vdsk_stats.h"
#include "lib/cor_uuid.h"
#include "lib/errdesc.h"
#include "vmware/lib/vmdk/vmdkdesc.h"

namespace mirador {

struct vdskdesc_t {
    static constexpr std::uint32_t magic_value = 0xd15cd15c;

    vdskdesc_t() = default;
    vdskdesc_t(const vdskdesc_t&) = delete;
    vdskdesc_t& operator=(const vdskdesc_t&) = delete;
    ~vdskdesc_t();  // vdsk_teardown

    std::uint32_t magic = magic_value;
    // The chain: this is the disk itself, vmdk_ancestor_array.back() the base. Once the disk is set up it holds only
    // what the descriptors say: no extent file, grain directory or grain table.
    vmdkdesc_t vmdkdesc;
    std::string vdsk_extent_path;                    // the disk's first extent file, "<directory>/<name>"
    std::string dm_name;                             // name of the loaded mapping; empty: none
    std::vector<std::string> dm_pieces;              // mappings under it, in the order in which they were loaded
    std::string devicemapper_path;                   // its block device
    std::vector<std::string> loopdevs;               // loop devices under it, in the order in which they were bound
    std::vector<vdsk_partition_t> partitions;        // filled by the caller through vdsk_get_partitions
    std::vector<vdsk_volume_group_t> volume_groups;  // the same, vdsk_get_volume_groups
    vdsk_stats_t stats;
};

// Opens the disk whose descriptor is `path`, maps its chain read-only and loads the mapping under a name of its own;
// *vdskdesc must be empty and owns the result. On an error nothing stays behind: no device, loop device, file or open
// descriptor. Errors: EINVAL with file and fault for a chain that cannot be mapped as it stands (descriptor_check.h,
// chain_check.h, vmdk_graindir.h, datastore_containment.h); EIO for a flat extent that is too short or none; EMFILE
// (24) when descriptors or loop devices run out; errno with the path for a file that cannot be opened, read or written;
// EFBIG for a disk in too many pieces or with too many grain tables; that of the tool that loads the table.
[[nodiscard]] errdesc_t* vdsk_setup(const std::string& path, std::unique_ptr<vdskdesc_t>* vdskdesc);

// Releases volume groups, partitions, mapping, loop devices and chain, in this order, also of a disk built in part, and
// leaves the record empty; a second call does nothing. A step that fails is logged at level 3 and the others still run.
void vdsk_teardown(vdskdesc_t* vdskdesc);

// Of a disk that is set up: what its mapping is made of, the mapping's name, and the identity that the base disk's
// descriptor gives (zeros if it gives none).
const vdsk_stats_t& vmdk_get_vdsk_stats(const vdskdesc_t& vdskdesc);
const std::string& vmdk_get_name(const vdskdesc_t& vdskdesc);
cor_uuid_t vmdk_get_uuid(const vdskdesc_t& vdskdesc);

}  // namespace mirador
