// SPDX-License-Identifier: Apache-2.0
// Requests to the web service at a base URL: "<base>/api/<object>".
//
// A reply's body goes to the caller's function, whose result is the request's; a reply without a body is a success
// without a call. Errors besides: those of the HTTP client; ENAMETOOLONG "URL refused, longer than 1023 characters:
// %s".
#pragma once

#include <json-c/json_object.h>

#include <atomic>
#include <cstddef>
#include <functional>
#include <string>

#include "lib/errdesc.h"

namespace mirador {

inline constexpr std::size_t controller_url_size = 1024;  // terminator included

using controller_reply_t = std::function<errdesc_t*(const std::string& body)>;

[[nodiscard]] errdesc_t* controller_raw_do_get(const std::string& base, const std::string& object,
                                               const controller_reply_t& callback);

// As controller_raw_do_get; ends with 42 while *interrupt is not 0. Null: as long as the controller takes.
[[nodiscard]] errdesc_t* controller_raw_do_get_ex(const std::string& base, const std::string& object,
                                                  const std::atomic<int>* interrupt,
                                                  const controller_reply_t& callback);

// Posts the JSON text of `body`. A slash at the end of `base` is dropped. An empty callback: the reply's body is
// dropped.
[[nodiscard]] errdesc_t* controller_raw_do_post_json(std::string base, const std::string& object, json_object* body,
                                                     const controller_reply_t& callback);

// From now on no request that has no interruption of its own lasts longer than 10 seconds: one under way ends with 42
// then, a later one with 28. What the end of the process still asks is asked, but a controller that never answers does
// not hold it up: after three requests in a row that ended with 28, all is given up. Does not wait.
void controller_raw_begin_shutdown();

// Those seconds, for tests.
extern std::atomic<unsigned> _controller_raw_shutdown_limit;

// Ends all requests that have no interruption of their own, with 42, and lets every later one fail so. For the end of
// the process, which must not hang on a controller that never answers.
void controller_raw_give_up();

// Posts to the controller itself; the reply's body is dropped.
[[nodiscard]] errdesc_t* controller_post_json(const std::string& object, json_object* body);

}  // namespace mirador
