// SPDX-License-Identifier: Apache-2.0
// What fuse-dmsetup and its server say to each other over a Unix stream socket: one request, with which the table's
// descriptor may travel, then one reply: the exit status and any length of text, to the end of the connection.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "lib/errdesc.h"
#include "lib/file_io.h"
#include "tools/fuse-dmsetup/mapper.h"

namespace mirador {

// Where the server of this machine's (or sandbox's) /dev/mapper listens.
inline constexpr char server_socket[] = "/run/fuse-dmsetup.sock";

enum class command_t : std::uint32_t { create, remove, remove_all, table, list };

struct request_t {
    command_t command = command_t::list;
    bool force = false;
    std::string name;    // empty: all devices
    unique_fd table_fd;  // create: the table's text
};

// How a refused request is told to the user: in dmsetup's words, without line end.
std::string ioctl_failed_text(const char* what, const std::string& name, const errdesc_t* e);

// Connects to the server. Errors: errno with the path; ENOENT and ECONNREFUSED mean that there is none.
[[nodiscard]] errdesc_t* server_connect(unique_fd* connection);

// Listens as the server; takes the place of a socket that nobody listens on. Errors: errno with the path.
[[nodiscard]] errdesc_t* server_listen(unique_fd* listener);

// Errors: errno "request"; EPROTO for a request that is none.
[[nodiscard]] errdesc_t* send_request(int connection, const request_t& request);
[[nodiscard]] errdesc_t* receive_request(int connection, request_t* request);

// The reply's beginning and its text. False: the other side has gone, or took too long to read.
bool send_status(int connection, std::int32_t status);
bool send_text(int connection, std::string_view text);

// Receives a reply, and writes its text to descriptor `out` when the status is 0, else to `err`. Errors: ECONNRESET
// when the server ended without one.
[[nodiscard]] errdesc_t* receive_reply(int connection, int out, int err, std::int32_t* status);

}  // namespace mirador
