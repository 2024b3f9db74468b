// SPDX-License-Identifier: Apache-2.0
// What a guest put on a mapped disk: its partitions, and the LVM2 volume groups that they belong to. Both are only read
// from the device; nothing is activated or mounted. The contents are a guest's, so nothing in them is trusted.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lib/errdesc.h"

namespace mirador {

// One partition. Start and size are in 512-byte sectors.
struct vdsk_partition_t {
    int number = 0;  // as the guest's kernel counts: logical partitions of a DOS table from 5 up
    std::uint64_t start = 0;
    std::uint64_t size = 0;
    std::string type;  // "0x83" for a DOS table, the type's UUID for a GPT
};

// One LVM2 physical volume and the group that it belongs to.
struct vdsk_volume_group_t {
    std::string name;
    int partition = 0;  // number of the partition that is the physical volume; 0: the whole disk
};

// Lists the partitions of a block device or disk image, in the table's order; a disk without a table or with an unknown
// one has none, and that is success. Errors: errno with `device` when it cannot be opened or read.
[[nodiscard]] errdesc_t* vdsk_get_partitions(const std::string& device, std::vector<vdsk_partition_t>* partitions);

// Finds the LVM2 physical volumes on `partitions` and on the whole disk, in that order, and reads the name of each
// one's volume group. A volume in no group, or with metadata that makes no sense, is left out. Errors: errno with
// `device` when it cannot be opened.
[[nodiscard]] errdesc_t* vdsk_get_volume_groups(const std::string& device,
                                                const std::vector<vdsk_partition_t>& partitions,
                                                std::vector<vdsk_volume_group_t>* volume_groups);

void vdsk_free_partitions(std::vector<vdsk_partition_t>* partitions);
void vdsk_free_volume_groups(std::vector<vdsk_volume_group_t>* volume_groups);

}  // namespace mirador
