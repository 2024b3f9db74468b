// SPDX-License-Identifier: Apache-2.0
// Whether the processes that the system relies on are there, asked of outside tools. A check that cannot be made is
// logged at level 4 and answered true: only a tool's own "no" counts. Any thread may ask; it waits for the tool, 120
// seconds at most for its output and as long again for its end.
#pragma once

#include <string>

namespace mirador {

// Whether a process of this name runs. The tool that prints nothing has not answered.
bool job_started_and_running(const std::string& job_name);

// Whether the controller is up, in the watchdog's words: it ends well and says "running".
bool corcontroller_is_running();

}  // namespace mirador
