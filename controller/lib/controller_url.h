// SPDX-License-Identifier: Apache-2.0
// Where the controller answers.
#pragma once

#include <string>

namespace mirador {

// The controller's base URL, "http://localhost:<port>" or "https://localhost:<port>", as the branding script gives
// port and protocol. Found once per process and kept; any thread may ask, one mutex makes the others wait meanwhile,
// up to the script's time limit of 120 seconds.
//
// While the script's output cannot be read or holds no two numbers the answer is "https://localhost:443", and the next
// call runs it again. When the script cannot be run, fails or takes too long, the answer is the same once, and the
// mutex stays locked: every later call blocks for good. Whoever starts the daemon makes sure that the script answers.
std::string controller_get_url();

}  // namespace mirador
