// SPDX-License-Identifier: Apache-2.0
// Child processes: start with optional pipes, bounded wait, liveness, kill. The command line, a blank behind each
// argument, is the text of every error. Any thread may start and wait for children; each waits for its own only.
//
// A child gets the standard streams and nothing else: every descriptor above 2 is closed in it. It starts with no
// signal blocked and the signals that the program handles at their defaults. A child whose pid nobody took, or that did
// not end at once when it was killed at its time limit, is reaped when the next one is started or waited for.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "lib/errdesc.h"

namespace mirador {

enum spawn_flags_t : unsigned {
    SPAWN_PIPE_FROM_CHILD = 2,  // *out_fd becomes the read end of the child's standard output
    SPAWN_PIPE_TO_CHILD = 4,    // *in_fd becomes the write end of the child's standard input
    SPAWN_WAIT = 8,             // wait for the child with the time limit given
    SPAWN_NO_STDERR = 32,       // the child closes its standard error
    SPAWN_CALLER_FDS = 64,      // *out_fd and *in_fd become the child's standard output and input and are closed here
};

// The usual time limit of an external tool, in seconds.
inline constexpr int spawn_tool_timeout = 120;

// Runs argv[0] (a path; no search) with the arguments. `envp` null: the parent's environment. Errors: errno with the
// command line; with SPAWN_WAIT those of spawn_wait. A program that cannot be run exits with errno as its status.
//
// After an error the caller holds no pipe end (*out_fd and *in_fd are -1). SPAWN_CALLER_FDS excludes the pipes; an end
// not wanted is null or -1; when no child could be started the descriptors stay open. Asserted: argv is not empty, a
// pipe has somewhere to go. *pid, when given, is set once the child runs, also if waiting for it fails.
[[nodiscard]] errdesc_t* spawn_env(const std::vector<std::string>& argv, unsigned flags, int* out_fd, int* in_fd,
                                   pid_t* pid, int timeout_s, const std::vector<std::string>* envp);
[[nodiscard]] errdesc_t* spawn(const std::vector<std::string>& argv, unsigned flags, int* out_fd, int* in_fd,
                               pid_t* pid, int timeout_s);

// Runs a tool and waits for its end, `timeout_s` seconds at most.
[[nodiscard]] errdesc_t* spawn_tool(const std::vector<std::string>& argv, int timeout_s = spawn_tool_timeout);

// Waits for `pid`, looking once a second. Errors: the conversion of its exit status (errdesc_exit_status), errno of the
// wait, or ETIME (62) after `timeout_s` seconds, when it is killed and reaped if that is possible at once. A time limit
// of 0 blocks until the child ends and then reports ETIME as well, so callers pass a positive one. `options` are
// waitpid's, added to the poll.
// A child that even SIGKILL does not end (one that waits for a device) is left behind: nothing waits for it.
[[nodiscard]] errdesc_t* spawn_wait(pid_t pid, int options, const std::string& text, int timeout_s);

// Whether `pid` is a child that has not exited; leaves an exited child to be reaped.
bool spawn_is_alive(pid_t pid);

// Sends a signal; always reports success. A pid that is not positive names no child and gets none.
errdesc_t* spawn_kill(pid_t pid, int signal);

// Part of the interface, not usable: calling either is a fatal assertion.
[[noreturn]] void spawn_write();
[[noreturn]] void spawn_read();

}  // namespace mirador
