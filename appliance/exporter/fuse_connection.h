// SPDX-License-Identifier: Apache-2.0
// FUSE connections as the kernel lists them. Who waits for the answer of a file system whose process does not answer
// any more cannot be ended by a signal; ending the connection frees him.
#pragma once

#include <string>

#include "lib/errdesc.h"

namespace mirador {

// The number of the connection behind the FUSE file system that is mounted on `mountpoint`; -1 if there is none. The
// file system itself is not asked.
int fuse_connection_of(const std::string& mountpoint);

// Ends the connection behind the FUSE file system that is mounted on `mountpoint`: everybody who waits for an answer,
// and who asks from now on, gets an error at once. The mount stays, but where the kernel's switch cannot be used: then
// it is unmounted by force, which ends the connection too, and which is the only way for one whose number is not known
// (-1). Errors: those of the tool for that.
[[nodiscard]] errdesc_t* fuse_connection_end(int connection, const std::string& mountpoint);

}  // namespace mirador
