// SPDX-License-Identifier: Apache-2.0
// Fault points: named places whose half-done state must be cleaned up, by an error path or by the next start. In a
// debug build the environment variable MIRADOR_FAULT_POINTS makes them fail; in any other build they are nothing.
//
//   MIRADOR_FAULT_POINTS="<name>=<action>[,<name>=<action>…]"
//
//   kill       the process ends as by kill -9
//   assert     an assertion fails
//   error:N    the point fails with error N and its own name
//   wait:N     N seconds go by (clock_sleep)
//
// An action holds for the first time that its point is met; a name that stands there twice has one for the second time.
#pragma once

#include "lib/errdesc.h"

namespace mirador {

// Null unless the point is to fail.
[[nodiscard]] errdesc_t* fault_point(const char* name);

// A point at which nothing can fail: an error is only logged.
void fault_moment(const char* name);

// Runs the process's clock MIRADOR_CLOCK_FACTOR times as fast, where that is set and the build is a debug one. Once,
// before any thread.
void fast_clock_from_environment();

}  // namespace mirador
