// SPDX-License-Identifier: Apache-2.0
// Every external program that is run and every fixed place that is used, in one table with the deployed defaults. Unit
// tests point entries elsewhere before any thread runs; the daemon changes only `dmsetup`, at start-up. No other source
// spells such a path.
#pragma once

#include <string>

namespace mirador {

struct tool_paths_t {
    // Programs.
    std::string mount = "/bin/mount";
    std::string umount = "/bin/umount";
    std::string dmsetup = "/sbin/dmsetup";
    std::string losetup = "/sbin/losetup";
    std::string exportfs = "/usr/sbin/exportfs";
    std::string pgrep = "/usr/bin/pgrep";
    std::string controller_watchdog = "/usr/local/corvantis/bin/watchdog-test-controller.py";
    std::string fusermount = "/usr/local/corvantis/bin/fusermount";
    std::string brand_reader = "/usr/local/corvantis/python/branding/BrandReader.py";
    std::string jrpc_agent = "/usr/local/corvantis/bin/jrpc_wget.pl";
    std::string cbt_getblocklist = "/usr/local/corvantis/bin/cbt_getblocklist.pl";
    std::string vol_id = "/lib/udev/vol_id";
    std::string vol_id_fallback = "/sbin/vol_id";
    // The program that stands in for `dmsetup` where the kernel has no device-mapper, in the daemon's own directory.
    std::string fuse_dmsetup = "fuse-dmsetup";

    // Files and directories.
    std::string mount_table = "/etc/mtab";
    std::string mount_info = "/proc/self/mountinfo";
    std::string fuse_connections = "/sys/fs/fuse/connections";
    std::string tmp_dir = "/tmp";
    std::string cache_dir = "/var/corvantis/vm_proxy_cache";
    // What the agents keep their hypervisors' sessions in; "-<host name>-<port>" follows.
    std::string jrpc_session_file = "/tmp/jrpc_session_file";
    std::string lock_file = "/run/mirador.lock";
    std::string brand_file = "/usr/local/corvantis/etc/brand.txt";
    std::string misc_devices = "/proc/misc";
    std::string fuse_device = "/dev/fuse";
    std::string loop_control = "/dev/loop-control";
    std::string loop_prefix = "/dev/loop";
    std::string mapper_dir = "/dev/mapper";
    // The mount point under which the system expects its own export tree.
    std::string export_root = "/export";
    // Where the storage layer publishes which sectors of a device are in use, a file for each device.
    std::string inuse_bitmap_dir = "/inuse_bitmap";
};

// The one table. Read without a lock: it does not change once threads run.
tool_paths_t& tool_paths();

}  // namespace mirador
