// SPDX-License-Identifier: Apache-2.0
// The name of the volume group that an LVM2 physical volume belongs to, read from the volume itself: label, metadata
// area header and the beginning of the metadata text. What does not make sense counts as no name.
#pragma once

#include <cstdint>
#include <string>

namespace mirador {

// Reads the physical volume that occupies the bytes [offset, offset + size) of an open device. False when the volume
// carries no label, lies in no group or cannot be read; *name is then unset.
bool lvm_read_group_name(int fd, std::uint64_t offset, std::uint64_t size, std::string* name);

}  // namespace mirador
