// SPDX-License-Identifier: Apache-2.0
// What the server does once it is a process of its own.
#pragma once

namespace mirador {

// What is written to the report when the server takes requests; any other text is the reason why it doesn't.
inline constexpr char server_is_ready[] = "ready";

// Mounts, listens, writes one text to descriptor `report` and closes it, obeys requests until the last device is
// removed or SIGTERM arrives, and ends the process.
[[noreturn]] void server_loop(int report);

}  // namespace mirador
