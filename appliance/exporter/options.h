// SPDX-License-Identifier: Apache-2.0
// The command line of the daemon.
#pragma once

#include <fuse_opt.h>

#include <cstdint>
#include <cstdio>

namespace mirador {

inline constexpr const char* mirador_version = "0.5 04/13/2009";

using cor_bool_t = std::uint32_t;

// What the command line says. The option parser writes the fields by their offsets, so the record is plain; the texts
// are its heap copies and live as long as the process.
struct mirador_options_t {
    char* proxy_mount_point;
    char* tmpfs_mount_point;
    char* tmpfs_mount_options;
    char* log_dir;
    cor_bool_t start_cnt_threads;
    cor_bool_t is_readonly;
    cor_bool_t use_existing_dir;
    cor_bool_t show_help;
    cor_bool_t show_version;
};

// The one record; holds the defaults until mirador_parse_options.
mirador_options_t& fs_options();

// Parses `args` into fs_options(); what is FUSE's stays in `args`, the mount point included. A text that is empty
// counts as not given. False on failure. An option that is neither the daemon's nor FUSE's is told on standard error
// with the usage, and the process exits with status 1.
[[nodiscard]] bool mirador_parse_options(fuse_args* args);

// The daemon leaves the directory that it is started in: makes the log directory, if one is given, absolute.
void options_settle_log_dir();

// Makes both mount points absolute, without the links, dots and end slashes that the mount table does not show either:
// what a predecessor mounted there must be found by name. The shadow's is "<mountpoint>.shadow" unless given. Changes
// the mount point in FUSE's arguments as well. Asserted: there is a mount point; the paths fit.
void options_settle_mount_points(fuse_args* args);

// Whether the settled mount points lie apart, neither of them in the other: the daemon would wait for itself where it
// reads the shadow through its own file system, and recovery removes the whole shadow. False after a line on standard
// error.
[[nodiscard]] bool options_check_mount_points();

void usage(const char* progname);

}  // namespace mirador
