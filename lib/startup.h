// SPDX-License-Identifier: Apache-2.0
// The frame of a process: core files, system log, log file and its rotation, signals. Used by the main thread: start
// before any other thread runs, exit after all have ended.
#pragma once

#include <optional>
#include <string>

#include "lib/errdesc.h"

namespace mirador {

struct cordesc_t {
    std::string name;                   // the program's base name
    std::optional<std::string> logdir;  // absolute: the log file is opened again on each SIGHUP
};

// Puts /dev/null in the place of each standard stream that the process was started without: no file, lock or pipe that
// is opened later may take its number, what is printed would end there. The first thing that main does.
void hold_std_streams();

// Lifts the limits of core files and open descriptors, opens the system log (which prints to standard error too) and
// makes SIGPIPE harmless in a way that outlives a library resetting it. With a log directory, standard output and
// standard error go to
// "<logdir>/<name>" from here on, unbuffered, and SIGHUP reopens that file: after a rotation the program goes on in
// a fresh one. Without it SIGHUP is left alone. Always succeeds; asserted: the log file can be opened.
[[nodiscard]] errdesc_t* cor_startup(const cordesc_t* desc);

// Closes the system log and restores the SIGHUP handler that cor_startup replaced. Always succeeds.
[[nodiscard]] errdesc_t* cor_exit();

// The SIGHUP handler: puts the log file, opened for appending, in place of standard output and standard error. It uses
// descriptors only, so it may interrupt a thread that is printing. Asserted: `signo` is SIGHUP, the file opens.
void logrotate_hndlr(int signo);

// Keeps TERM, INT and HUP from the calling thread and those it starts: the main thread alone handles them. The first
// thing that a thread of the program's own does.
void block_signals();

}  // namespace mirador
