// SPDX-License-Identifier: Apache-2.0
// The chain of a disk and its parents. Each disk names its parent by a hint in its descriptor; the base names none.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "lib/errdesc.h"
#include "vmware/lib/vmdk/vmdkdesc.h"

namespace mirador {

inline constexpr std::uint32_t vmdk_max_ancestors = 128;

// Extents that the disks of one chain may have together. Each takes memory, an open file and a loop device, and small
// files can claim any number.
inline constexpr std::size_t vmdk_max_chain_extents = 4096;

// Opens the parents of an open disk (asserted), each owned by its child, and lists the chain: entry 0 is the disk
// itself, the last one the base. Called with depth 0 and an empty array; the disk must stay where it is while the array
// is used. A parent whose content id differs from the one its child names is logged at level 4 and used.
//
// Errors, which leave the array empty and open no parent: EINVAL "Length of VMDK ancestors chain for %s has reached the
// limit (%d)" for 128 parents; EINVAL "VMDK descriptor for %s (%d) is corrupted" for a disk with a parent's content id
// 0 or without a hint; EINVAL naming the file for a chain that returns to a disk of its own or has more than
// vmdk_max_chain_extents; those of datastore_check_contained and vmdk_open_checked for a parent.
[[nodiscard]] errdesc_t* vmdk_get_ancestors(vmdkdesc_t* vmdkdesc, std::uint32_t depth, std::vector<vmdkdesc_t*>* array);

// The disks of an open chain that supply data: the whole chain of a disk reached through the direct datastore mount,
// only the disk itself otherwise. A disk reached through the ordinary mount is always one flat file: the type of its
// first extent is set to ET_FLAT here. The chain must be built (asserted).
std::span<vmdkdesc_t* const> vmdk_mapped_disks(vmdkdesc_t* vmdkdesc);

// Opens the disk `path` with its chain and hands out the base disk's `filename` and whether it is thin. Errors: those
// of vmdk_open_checked and vmdk_get_ancestors.
[[nodiscard]] errdesc_t* vmdk_get_root_vmdk(const std::string& path, std::string* rootpath, bool* thin);

}  // namespace mirador
