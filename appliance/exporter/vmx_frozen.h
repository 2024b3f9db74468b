// SPDX-License-Identifier: Apache-2.0
// The disk references of a VMX file that is ahead of what the controller tells: while a snapshot freezes the VM's
// disks, or before the controller has heard of one, the file names the deltas that the VM writes to, and exported are
// the disks below them.
#pragma once

#include <string>
#include <vector>

#include "vmware/lib/vmx/vmx_convert.h"

namespace mirador {

// Puts the VMX file's own reference into each entry of `conversion` whose disk is not referred to itself, but is below
// one that is. `heads`: where the descriptor of each entry's disk can be read, in the same order. What cannot be
// followed stays as it is; what is read of the datastore on the way fails silently.
void vmx_follow_to_frozen(const std::string& vmx_path, const std::vector<std::string>& heads,
                          vmx_conversion_t* conversion);

}  // namespace mirador
