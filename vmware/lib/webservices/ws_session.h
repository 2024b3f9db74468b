// SPDX-License-Identifier: Apache-2.0
// Sessions with a hypervisor, through a web-service agent of the pool (lib/jrpcclnt_pool.h).
//
// An agent serves one hypervisor host and port; whoever has connected uses it alone until it disconnects. The login
// goes to the agent anew with every ws_connect, so that nothing is inherited from an agent's earlier user. The
// credentials go through the agent's pipe only: they stand in no command line, and where the agent's error repeats the
// password, asterisks stand in its place.
//
// Any thread may call; calls block for as long as the agent takes. No lock is held during a call but the agent's own.
//
// Errors: EINVAL for a hypervisor record that cannot be connected to, with "Hypervisor '<name>' refused, <fault>";
// otherwise those of the pool, the transport and the agent itself (lib/jrpc.h).
#pragma once

#include <string>

#include "controller/lib/kestrel_types.h"
#include "lib/errdesc.h"
#include "lib/jrpc.h"
#include "lib/json_tools.h"

namespace mirador {

// What sessions opened from now on tell the agent about whose they are; "Corvantis" unless set.
void ws_set_vendor_id(const std::string& vendor_id);

// Takes an agent for the hypervisor and logs it in; *handle, null before (asserted), is to be given to ws_disconnect.
// After an error the agent is back in the pool and *handle is null.
[[nodiscard]] errdesc_t* ws_connect(const ks_hypervisor_config_t& hvc, jrpc_handle_t** handle);

// Gives the agent back, and sets *handle to null. The agent keeps its session. Always succeeds, and leaves the calling
// thread's error descriptor alone.
errdesc_t* ws_disconnect(jrpc_handle_t** handle);

// One call in a session of its own. `result` may be null; otherwise *result is the reply's data, null when it has none
// and after an error.
[[nodiscard]] errdesc_t* jrpc_single_call_raw(const ks_hypervisor_config_t& hvc, const jrpc_args_t& args,
                                              json_ptr* result);

}  // namespace mirador
