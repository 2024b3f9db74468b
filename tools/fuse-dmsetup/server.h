// SPDX-License-Identifier: Apache-2.0
// The process behind /dev/mapper: holds the tables, serves the files, obeys the command line's requests one by one.
//
// The first `create` starts it. It ends when its last device is removed, and is gone from /dev/mapper before that
// request is answered. It keeps nothing of the process that started it.
#pragma once

#include "lib/errdesc.h"

namespace mirador {

// Starts a server in the background and returns when it takes requests. The calling process must have one thread.
// Errors: EIO with the server's own text; errno of a fork or pipe.
[[nodiscard]] errdesc_t* server_start();

}  // namespace mirador
