// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/mirador.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "appliance/exporter/cbt_script.h"
#include "appliance/exporter/closed_places.h"
#include "appliance/exporter/controller_thr.h"
#include "appliance/exporter/crash.h"
#include "appliance/exporter/daemonize.h"
#include "appliance/exporter/dm_tool.h"
#include "appliance/exporter/fuse_front.h"
#include "appliance/exporter/options.h"
#include "appliance/exporter/snapshot_thr.h"
#include "appliance/exporter/stats_thr.h"
#include "appliance/exporter/vm_proxy_evict.h"
#include "controller/lib/controller_raw.h"
#include "controller/lib/managed_alert.h"
#include "lib/clock.h"
#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/fault_point.h"
#include "lib/instance_lock.h"
#include "lib/jrpcclnt_pool.h"
#include "lib/startup.h"
#include "lib/tmpfs.h"
#include "lib/tool_paths.h"

namespace mirador {
namespace {

struct args_guard_t {
    fuse_args args;
    ~args_guard_t() { fuse_opt_free_args(&args); }
};

void start_logging(const char* argv0) {
    cordesc_t desc;
    desc.name = last_component(argv0);
    if (fs_options().log_dir != nullptr)
        desc.logdir = fs_options().log_dir;
    cor_assert(cor_startup(&desc) == nullptr);
}

// Answers the options that end the program at once; their order is part of the command line. Returns the exit status.
int check_options(const char* progname, bool* goes_on) {
    mirador_options_t& options = fs_options();
    *goes_on = false;
    if (options.proxy_mount_point == nullptr) {
        std::fprintf(stderr, "Mount point must be provided\n");
        usage(progname);
        return 1;
    }
    if (options.show_version != 0) {
        std::printf("MIRADOR version %s\n", mirador_version);
        return 0;
    }
    if (options.show_help != 0) {
        usage(progname);
        return 0;
    }
    if (options.is_readonly == 0) {
        std::fprintf(stderr, "The ``--writable'' option is not currently supported.\n");
        return 1;
    }
    *goes_on = true;
    return 0;
}

// Whether FUSE can mount here, as far as can be told before; a mount point behind which a daemon died counts, for
// recovery clears it. What is mounted there is not asked: while threads of a dead daemon hang, nobody answers.
bool can_mount() {
    const char* mount_point = fs_options().proxy_mount_point;
    struct statx st {};
    const bool stat_failed = statx(AT_FDCWD, mount_point, AT_STATX_DONT_SYNC, STATX_TYPE, &st) != 0;
    if (stat_failed && errno != ENOTCONN && errno != ECONNABORTED) {
        std::fprintf(stderr, "mirador: %s: %s\n", mount_point, errnum_text(errno).c_str());
        return false;
    }
    if (!stat_failed && !S_ISDIR(st.stx_mode)) {
        std::fprintf(stderr, "mirador: %s: %s\n", mount_point, errnum_text(ENOTDIR).c_str());
        return false;
    }
    if (access(tool_paths().fuse_device.c_str(), R_OK | W_OK) != 0) {
        std::fprintf(stderr, "mirador: %s: %s\n", tool_paths().fuse_device.c_str(), errnum_text(errno).c_str());
        return false;
    }
    return true;
}

// A predecessor that was killed while it read from its own file system holds the lock until that connection ends.
bool take_instance_lock() {
    constexpr int patience = 10;  // seconds
    errdesc_t* e = instance_lock_take();
    for (int i = 0; i < patience && e != nullptr && e->number == EBUSY && instance_lock_holder_is_dying(); i++) {
        crash_recover_abort_fuse(fs_options().proxy_mount_point);
        clock_sleep(1);
        e = instance_lock_take();
    }
    if (e != nullptr)
        std::fprintf(stderr, "mirador: %s\n", e->string);
    return e == nullptr;
}

// The shadow tree: a directory of the user's, checked, or a tmpfs of its own.
bool prepare_tmpfs() {
    const mirador_options_t& options = fs_options();
    const char* mount_point = options.tmpfs_mount_point;
    if (options.use_existing_dir != 0) {
        const int wanted = R_OK | X_OK | (options.is_readonly == 0 ? W_OK : 0);
        if (access(cor_format_path("%s/.", mount_point).c_str(), wanted) == 0) {
            check_users_shadow_tree(mount_point);
            return true;
        }
        std::perror(mount_point);
        return false;
    }
    const char* mount_options = options.tmpfs_mount_options;
    errdesc_t* e =
        tmpfs_create(mount_point, mount_options == nullptr ? std::nullopt : std::optional<std::string>(mount_options));
    if (e == nullptr) {
        close_shadow_tree(mount_point);
        return true;
    }
    std::printf("tmpfs_create(%s, %s) returned an error\n", mount_point,
                mount_options == nullptr ? "(null)" : mount_options);
    _errdesc_print(e, ERRDESC_ERROR);
    return false;
}

bool remove_tmpfs() {
    if (fs_options().use_existing_dir != 0)
        return true;
    errdesc_t* e = tmpfs_remove(fs_options().tmpfs_mount_point);
    if (e == nullptr)
        return true;
    std::printf("tmpfs_remove(%s) returned an error\n", fs_options().tmpfs_mount_point);
    _errdesc_print(e, ERRDESC_ERROR);
    return false;
}

// The daemon ends: nothing waits for hypervisors or the controller any more than it must.
void hurry() {
    snapshot_state_hurry();
    cbt_script_hurry();
    controller_raw_begin_shutdown();
    jrpcclnt_pool_begin_shutdown();
}

// Ends what serve() has started, in the reverse order. Whether the shadow tree could be removed.
bool shut_down() {
    hurry();
    fault_moment("end.unmounted");
    if (fs_options().start_cnt_threads != 0)
        cnt_thr_stop();
    const bool removed = remove_tmpfs();
    fault_moment("end.shadow");
    vm_proxy_release_all();
    fault_moment("end.released");
    snapshot_state_shutdown();
    fault_moment("end.snapshots");
    stats_thr_stop();  // may give the controller up for good, which snapshots still need
    managed_alert_shutdown();
    jrpcclnt_pool_destroy();
    cor_assert(cor_exit() == nullptr);
    return removed;
}

// From recovery to the end; what has been started is stopped in the reverse order.
int serve(fuse_args* args, background_t* background) {
    const mirador_options_t& options = fs_options();
    if (!take_instance_lock())
        return 1;
    choose_dmsetup();
    vm_proxy_crash_recover(options.proxy_mount_point, options.tmpfs_mount_point, options.use_existing_dir != 0);
    make_closed_cache();
    if (!prepare_tmpfs())
        return 1;
    fault_moment("start.shadow");
    cnt_thr_set_up(options.tmpfs_mount_point, options.use_existing_dir != 0);
    if (options.start_cnt_threads != 0) {
        stats_thr_enable();
        cnt_thr_start();
    }
    fault_moment("start.threads");
    // It has told its failure.
    (void)fuse_serve(
        args, [&] { background->serving(options.log_dir != nullptr); }, hurry);
    return shut_down() ? 0 : 1;
}

}  // namespace

int mirador_main(int argc, char** argv) {
    hold_std_streams();
    args_guard_t guard{FUSE_ARGS_INIT(argc, argv)};
    if (!mirador_parse_options(&guard.args)) {
        std::fprintf(stderr, "Invalid arguments\n");
        usage(argv[0]);
        return 1;
    }
    options_settle_log_dir();
    start_logging(argv[0]);
    bool goes_on = false;
    const int status = check_options(argv[0], &goes_on);
    if (!goes_on)
        return status;
    bool foreground = false;
    if (!fuse_check_arguments(guard.args, &foreground))
        return 1;
    options_settle_mount_points(&guard.args);
    if (!options_check_mount_points() || !can_mount())
        return 1;
    background_t background;
    if (!foreground)
        if (const std::optional<int> outcome = background.enter())
            return *outcome;
    return serve(&guard.args, &background);
}

}  // namespace mirador
