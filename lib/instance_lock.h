// SPDX-License-Identifier: Apache-2.0
// One daemon on a machine: its start-up clears mounts, mappings and loop devices of the whole machine, a running
// instance's too. The lock is taken before that.
#pragma once

#include "lib/errdesc.h"

namespace mirador {

// Locks tool_paths().lock_file (created when missing) for the life of the process. It goes with the process however
// that ends; a forked child shares it, so a daemon that goes to the background after taking it keeps it; programs that
// are run do not get it. The file tells the holder's process id. Errors: EBUSY "already running" when it is taken, by
// whomever; errno with the file's path.
[[nodiscard]] errdesc_t* instance_lock_take();

// Whether the lock is held by a process that was killed and cannot end: one of its threads waits in the kernel for
// something that does not come, its own file system's answer, say.
bool instance_lock_holder_is_dying();

}  // namespace mirador
