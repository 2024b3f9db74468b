// SPDX-License-Identifier: Apache-2.0
// Which program loads device-mapper tables on this machine.
#pragma once

namespace mirador {

// Whether the running kernel has device-mapper (the list of its misc devices tells; a node proves nothing).
bool kernel_has_device_mapper();

// Points the tool table's dmsetup at the stand-in beside this program where the kernel has no device-mapper, and says
// so in the log. Before any thread runs.
void choose_dmsetup();

}  // namespace mirador
