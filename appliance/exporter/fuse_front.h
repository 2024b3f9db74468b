// SPDX-License-Identifier: Apache-2.0
// The FUSE front end: turns file-system calls into calls of the export engine on pairs of exported and shadow path, and
// their error descriptors into replies. Its source is the only one that knows FUSE. All exported files are read-only.
//
// FUSE calls the operations on its worker threads, side by side; the engine does the locking.
#pragma once

#include <fuse_opt.h>

#include <functional>

namespace mirador {

// Whether the arguments name no second mount point, which FUSE would refuse. False after a line on standard error.
// *foreground: they ask FUSE to stay in the foreground or to print its debug output.
[[nodiscard]] bool fuse_check_arguments(const fuse_args& args, bool* foreground);

// Mounts and serves until the file system is unmounted or a signal ends it; `on_serving` runs once the mount stands,
// `on_ending`, on another thread, once its end is asked for, while requests may still be on their way.
// The process must be in the background already if it is to be: no fork happens here. False, with a line on standard
// error, when the mount fails.
[[nodiscard]] bool fuse_serve(fuse_args* args, const std::function<void()>& on_serving,
                              const std::function<void()>& on_ending);

}  // namespace mirador
