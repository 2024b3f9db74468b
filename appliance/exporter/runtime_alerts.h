// SPDX-License-Identifier: Apache-2.0
// Alerts about what went wrong in clients' calls. A thread of its own sends them: no client waits for the controller,
// and no lock is held meanwhile. While the thread does not run (a daemon without controller) there are none.
#pragma once

#include <string>

#include "lib/errdesc.h"

namespace mirador {

// Starts the thread; stops it, and returns when it has ended. What is not sent by then is dropped.
void runtime_alerts_start();
void runtime_alerts_stop();

// Has the error of a call on an exported path sent. Never waits: of many at a time the latest are dropped, and so is
// one that waits to be sent already.
void raise_runtime_alert(const std::string& path, const std::string& shadow_path, const errdesc_t* e);

}  // namespace mirador
