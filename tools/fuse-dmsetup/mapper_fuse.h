// SPDX-License-Identifier: Apache-2.0
// Serves the devices of a mapper as read-only files of a FUSE mount on tool_paths().mapper_dir. Its source is the only
// one that knows FUSE.
#pragma once

#include "lib/errdesc.h"
#include "tools/fuse-dmsetup/mapper.h"

namespace mirador {

// Mounts, and serves in threads that live as long as the process; so must *mapper. Once in a process. Errors: EIO with
// the directory when the mount fails; libfuse has then said why on standard error.
[[nodiscard]] errdesc_t* mapper_fuse_start(mapper_t* mapper);

// Unmounts at once, even if a file is open.
void mapper_fuse_stop();

// Takes the mount of a server that was killed off the directory.
void mapper_fuse_detach_dead();

}  // namespace mirador
