// SPDX-License-Identifier: Apache-2.0
// The daemon from its command line to its end.
#pragma once

namespace mirador {

// Parses the command line, recovers what a dead predecessor left, makes the shadow tmpfs, mounts, serves until
// unmounted or told to end, and takes everything down in a fixed order. Unless FUSE is told to stay in the foreground
// (-f, -d) the daemon goes to the background and the calling process returns once the mount stands.
//
// Returns the exit status: 0 after help, version and a normal end (also when FUSE could not mount, so whoever starts
// the daemon tests the mount); 1 for a wrong command line, a daemon that runs already, a mount point or /dev/fuse that
// is missing, and a shadow tmpfs that cannot be made or removed. Must run where the machine is the daemon's own: see
// crash.h.
int mirador_main(int argc, char** argv);

}  // namespace mirador
