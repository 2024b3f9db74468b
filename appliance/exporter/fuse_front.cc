// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/fuse_front.h"

#define FUSE_USE_VERSION 26
#include <dirent.h>
#include <fcntl.h>
#include <fuse.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cinttypes>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "appliance/exporter/call_tracker.h"
#include "appliance/exporter/cbt_open.h"
#include "appliance/exporter/controller_thr.h"
#include "appliance/exporter/fuse_connection.h"
#include "appliance/exporter/open_files.h"
#include "appliance/exporter/options.h"
#include "appliance/exporter/runtime_alerts.h"
#include "appliance/exporter/vm_proxy_api.h"
#include "appliance/exporter/vm_proxy_attr.h"
#include "appliance/exporter/vm_proxy_read.h"
#include "appliance/exporter/vm_update.h"
#include "appliance/lib/cor_namespace.h"
#include "appliance/lib/registry.h"
#include "appliance/lib/shadow_names.h"
#include "lib/clock.h"
#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/error_hash.h"
#include "lib/log.h"
#include "lib/spawn.h"
#include "lib/startup.h"
#include "lib/thread_annotations.h"
#include "lib/tool_paths.h"

namespace mirador {
namespace {

constexpr int call_level = 2;   // debug level of the line for each call
constexpr int entry_level = 3;  // and of the line for each directory entry

call_tracker_t _getattr_tracker("mirador_getattr", "opened", "INITIAL GETATTR");
call_tracker_t _open_tracker("mirador_open", "opened", "INITIAL OPEN");
call_tracker_t _close_tracker("mirador_release", "closed", "INITIAL CLOSE");

// The debug level above which calls in a row are counted and failed look-ups are logged.
bool tracks_calls() {
    return get_reg_settings()->debug_level > 1;
}

// The shadow path of an exported path. A result that does not fit a path buffer is a fatal assertion.
std::string translate_path(const char* path) {
    const char* rest = path[0] == '/' ? path + 1 : path;
    return cor_format_path("%s/%s", cnt_thr_namespaceroot().c_str(), rest[0] == '\0' ? "." : rest);
}

// Names that desktop file browsers probe for in every directory.
bool is_hidden(std::string_view path) {
    for (const std::string_view name : {"folder.jpg", "folder.gif", "Thumbs.db", "desktop.ini"})
        if (path.find(name) != std::string_view::npos)
            return true;
    return false;
}

// At high debug levels attributes that look wrong are printed.
void cross_check(const char* path, const char* caller, const struct stat& st) {
    if (get_reg_settings()->debug_level > entry_level - 1)
        cns_check_statb(path, caller, st, false);
}

// Logs an error, remembers it for the path and gives FUSE's reply.
int reply_error(const char* path, errdesc_t* e) {
    const int number = e->number;
    error_hash_save(path, e);
    _errdesc_log(e, ERRDESC_ERROR);
    return -number;
}

// The same, and an alert.
int reply_alert(const char* path, errdesc_t* e) {
    raise_runtime_alert(path, translate_path(path), e);
    return reply_error(path, e);
}

DIR* handle_dir(const fuse_file_info* fi) {
    return reinterpret_cast<DIR*>(fi->fh);
}

open_files_t& open_files() {
    static open_files_t the_files;
    return the_files;
}

const void* as_pointer(const void* p) {
    return p;
}

int mirador_getattr(const char* path, struct stat* st) {
    if (is_hidden(path))
        return -ENOENT;
    ts_dprintf(call_level, "mirador_getattr(path %s, st_data %p)\n", path, as_pointer(st));
    if (tracks_calls())
        _getattr_tracker.track(path);
    errdesc_t* e = vm_proxy_getattr(path, translate_path(path), true, st);
    if (e == nullptr) {
        cross_check(path, "mirador_getattr", *st);
        return 0;
    }
    const int number = e->number;
    error_hash_save(path, e);
    if (tracks_calls())
        _errdesc_log(e, ERRDESC_ERROR);
    return -number;
}

// The path of an open file. FUSE has none of what has left the tree and that the kernel has forgotten.
std::string path_of(const char* path, const fuse_file_info* fi) {
    if (path != nullptr)
        return path;
    const fuse_fh_t* fh = open_files_t::get(fi->fh);
    return fh == nullptr ? "-" : fh->path;
}

// What the kernel asks at the end of a file that is read through its page cache.
int mirador_fgetattr(const char* path, struct stat* st, fuse_file_info* fi) {
    const fuse_fh_t& fh = *open_files_t::get(fi->fh);
    ts_dprintf(call_level, "mirador_fgetattr(path %s, st_data %p)\n", path_of(path, fi).c_str(), as_pointer(st));
    if (path == nullptr)
        *st = fh.attributes;
    else
        vm_proxy_fgetattr(fh, path, translate_path(path), st);
    return 0;
}

int mirador_getxattr(const char* path, const char* name, char* value, std::size_t size) {
    ts_dprintf(call_level, "mirador_getxattr(path %s, name %s, size %zd)\n", path, name, static_cast<ssize_t>(size));
    errdesc_t* e = vm_proxy_getxattr(path, translate_path(path), name, value, &size);
    if (e == nullptr)
        return static_cast<int>(size);
    _errdesc_log(e, ERRDESC_ERROR);
    return -1;
}

int mirador_setxattr(const char* path, const char* name, const char*, std::size_t size, int flags) {
    ts_dprintf(call_level, "mirador_setxattr(path %s, name %s, size %zd, flags %d)\n", path, name,
               static_cast<ssize_t>(size), flags);
    errdesc_t* e = vm_proxy_setxattr(path, name);
    if (e == nullptr)
        return 0;
    _errdesc_log(e, ERRDESC_ERROR);
    return -1;
}

// The VM directory behind a path of the shadow tree: an alias by VM uuid leads there.
std::string follow_alias(const std::string& shadow_path) {
    struct stat st {};
    if (lstat(shadow_path.c_str(), &st) != 0) {
        _errdesc_log(errdesc_set_str(errno, shadow_path), ERRDESC_WARNING);
        return shadow_path;
    }
    std::array<char, path_size> target{};
    if (!S_ISLNK(st.st_mode) || readlink(shadow_path.c_str(), target.data(), target.size() - 1) < 0)
        return shadow_path;
    return target.data();
}

// Refreshes the VM whose directory a client opens.
void refresh_vm(const char* path, const std::string& shadow_path) {
    const bool has_aliases = get_reg_settings()->export_vm_uuid_enabled;
    errdesc_t* e = vm_update(has_aliases ? follow_alias(shadow_path) : shadow_path, false, false);
    if (e == nullptr)
        return;
    error_hash_save(path, e);
    _errdesc_log(e, ERRDESC_WARNING);
}

int mirador_opendir(const char* path, fuse_file_info* fi) {
    const std::string shadow_path = translate_path(path);
    refresh_vm(path, shadow_path);
    ts_dprintf(call_level, "mirador_opendir(path %s, fuse_file_info %p)\n", path, as_pointer(fi));
    DIR* dir = opendir(shadow_path.c_str());
    if (dir == nullptr)
        return reply_alert(path, errdesc_set_str(errno, path));
    fi->fh = reinterpret_cast<std::uintptr_t>(dir);
    return 0;
}

int mirador_releasedir(const char* given_path, fuse_file_info* fi) {
    const char* path = given_path != nullptr ? given_path : "-";  // as for a file
    ts_dprintf(call_level, "mirador_releasedir(path %s, fuse_file_info %p)\n", path, as_pointer(fi));
    DIR* dir = handle_dir(fi);
    fi->fh = ~std::uint64_t{0};
    return closedir(dir) == 0 ? 0 : reply_error(path, errdesc_set_str(errno, path));
}

// Passes one entry to FUSE; one whose attributes cannot be had is left out. False when FUSE takes no more.
bool fill_entry(const char* path, const char* name, void* buf, fuse_fill_dir_t filler) {
    const char* directory = path[0] == '/' && path[1] == '\0' ? "" : path;  // one slash in front of the root's entries
    const std::string entry_path = cor_format("%s/%s", directory, name);
    struct stat st {};
    if (errdesc_t* e = vm_proxy_getattr(entry_path, translate_path(entry_path.c_str()), false, &st)) {
        _errdesc_log(e, ERRDESC_ERROR);
        return true;
    }
    cross_check(entry_path.c_str(), "mirador_readdir", st);
    return filler(buf, name, &st, 0) == 0;
}

int mirador_readdir(const char* path, void* buf, fuse_fill_dir_t filler, off_t offset, fuse_file_info* fi) {
    if (path == nullptr)  // it has left the tree
        return -ENOENT;
    ts_dprintf(call_level, "mirador_readdir(path %s, buf %p, filler %p, offset %jd, fuse_file_info %p)\n", path, buf,
               reinterpret_cast<void*>(filler), static_cast<std::intmax_t>(offset), as_pointer(fi));
    DIR* dir = handle_dir(fi);
    rewinddir(dir);
    errno = 0;
    const dirent* entry = readdir(dir);  // NOLINT(concurrency-mt-unsafe): the stream belongs to this handle
    if (entry == nullptr)  // not even a dot: it was removed since it was opened, which is no error to readdir
        return reply_alert(path, errdesc_set_str(errno != 0 ? errno : ENOENT, path));
    for (; entry != nullptr; entry = readdir(dir)) {  // NOLINT(concurrency-mt-unsafe)
        ts_dprintf(entry_level, "    mirador_readdir(%s): got %s\n", path, entry->d_name);
        if (std::string_view(entry->d_name) == shadow_lock_name)
            continue;
        if (!fill_entry(path, entry->d_name, buf, filler))
            return -ENOMEM;
    }
    return 0;
}

int mirador_open(const char* path, fuse_file_info* fi) {
    constexpr int writing = O_WRONLY | O_RDWR | O_CREAT | O_EXCL | O_TRUNC | O_APPEND;
    if (tracks_calls())
        _open_tracker.track(path);
    ts_dprintf(call_level, "mirador_open(path %s, fuse_file_info %p)\n", path, as_pointer(fi));
    if (fs_options().is_readonly != 0 && (fi->flags & writing) != 0)
        return -EROFS;
    std::unique_ptr<fuse_fh_t> fh;
    errdesc_t* e = vm_proxy_open(path, translate_path(path), &fh);
    if (e != nullptr)
        _errdesc_log(e, ERRDESC_ERROR);
    ts_dprintf(call_level, "mirador_open (path %s) completed successfully\n", path);
    if (e != nullptr)
        return -EIO;
    fi->direct_io = fh->direct_io ? 1 : 0;
    fi->fh = open_files().add(std::move(fh));
    return 0;
}

// The kernel takes a short reply for the file's end, and the file for as long as that.
int mirador_read(const char* path, char* buf, std::size_t size, off_t offset, fuse_file_info* fi) {
    std::size_t bytes_read = 0;
    const fuse_fh_t* fh = open_files_t::get(fi->fh);
    errdesc_t* e = vm_proxy_read_whole(buf, size, offset, fh, &bytes_read);
    if (e == nullptr)
        return static_cast<int>(bytes_read);
    // An error under a loop-file name is the disk's.
    return reply_alert(fh != nullptr && fh->cbt_losetup ? fh->path.c_str() : path_of(path, fi).c_str(), e);
}

int mirador_statfs(const char* path, struct statvfs* st) {
    ts_dprintf(call_level, "mirador_statfs(path %s, st_buf %p)\n", path, as_pointer(st));
    errdesc_t* e = vm_proxy_statvfs(translate_path(path), st);
    return e == nullptr ? 0 : reply_error(path, e);
}

int mirador_release(const char* given_path, fuse_file_info* fi) {
    const std::string path = path_of(given_path, fi);
    ts_dprintf(call_level, "mirador_release(path %s, fuse_file_info %p)\n", path.c_str(), as_pointer(fi));
    if (tracks_calls())
        _close_tracker.track(path);
    errdesc_t* e = vm_proxy_release(path, open_files().take(std::exchange(fi->fh, 0)));
    return e == nullptr ? 0 : reply_error(path.c_str(), e);
}

// How many requests the kernel may have on their way for its page cache, unless an option says so. Who splices from a
// changed-block file (sendfile) or maps it reads it through the page cache, whatever its open said, and each of these
// requests waits for one of the same kind, to the flat disk: were they as few as the kernel likes (12), readers could
// take them all and wait for ever.
void* mirador_init(fuse_conn_info* conn) {
    constexpr unsigned page_cache_requests = 512;
    if (conn->max_background == 0)
        conn->max_background = page_cache_requests;
    return nullptr;
}

fuse_operations mirador_oper() {
    fuse_operations oper{};
    oper.init = mirador_init;
    oper.getattr = mirador_getattr;
    oper.fgetattr = mirador_fgetattr;
    oper.open = mirador_open;
    oper.read = mirador_read;
    oper.statfs = mirador_statfs;
    oper.release = mirador_release;
    oper.setxattr = mirador_setxattr;
    oper.getxattr = mirador_getxattr;
    oper.opendir = mirador_opendir;
    oper.readdir = mirador_readdir;
    oper.releasedir = mirador_releasedir;
    oper.flag_nullpath_ok = 1;  // what is open can be read whatever becomes of its path
    return oper;
}

// A TERM that came while the main thread ran the handler of a child's end would not wake its wait for the end of the
// file system. Children are reaped by those who wait for them; nobody needs the signal.
void block_child_signal() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGCHLD);
    cor_assert(pthread_sigmask(SIG_BLOCK, &signals, nullptr) == 0);
}

// What the arguments say that matters before FUSE reads them.
struct fuse_request_t {
    int foreground;
    int mount_points;
};

// Counts the plain arguments: FUSE takes one, and tells of another only once it mounts.
int count_mount_points(void* data, const char* arg, int key, fuse_args*) {
    constexpr int keep = 1;
    constexpr int fail = -1;
    if (key != FUSE_OPT_KEY_NONOPT || ++static_cast<fuse_request_t*>(data)->mount_points == 1)
        return keep;
    std::fprintf(stderr, "mirador: %s: there is a mount point already\n", arg);
    return fail;
}

// Seconds that requests on their way have when the file system is asked to end.
constexpr int ending_patience = 10;

// Tells when the file system is asked to end, and sees to it that it does. Its loop takes no request any more then but
// waits for those on their way: one that opens a disk may wait for a hypervisor, and one for a changed-block file for a
// read of this very file system, which nobody serves.
class ending_watch_t {
  public:
    ending_watch_t(fuse* handle, int connection, const std::function<void()>& on_ending)
        : thr_([this, handle, connection, &on_ending] { watch(handle, connection, on_ending); }) {}
    // When the loop has ended.
    ~ending_watch_t() {
        {
            const mutex_lock_t lock(mutex_);
            done_ = true;
            cond_.notify_all();
        }
        thr_.join();
    }
    ending_watch_t(const ending_watch_t&) = delete;
    ending_watch_t& operator=(const ending_watch_t&) = delete;

  private:
    void watch(fuse* handle, int connection, const std::function<void()>& on_ending) {
        block_signals();
        const mutex_lock_t lock(mutex_);
        while (!done_ && fuse_exited(handle) == 0)
            clock_wait(cond_, mutex_, 1);
        on_ending();
        for (int left = ending_patience; !done_ && left > 0; left--)
            clock_wait(cond_, mutex_, 1);
        if (done_)
            return;
        ts_printf("Requests are still on their way: ending FUSE connection %d\n", connection);
        if (errdesc_t* e = fuse_connection_end(connection, fs_options().proxy_mount_point))
            _errdesc_log(e, ERRDESC_ERROR);
    }

    mutex_t mutex_;
    std::condition_variable_any cond_;
    bool done_ GUARDED_BY(mutex_) = false;
    std::thread thr_;
};

// Serves until the file system ends.
void run_loop(fuse* handle, bool multithreaded, int connection, const std::function<void()>& on_ending) {
    ending_watch_t watch(handle, connection, on_ending);
    if (multithreaded)
        fuse_loop_mt(handle);
    else
        fuse_loop(handle);
}

// FUSE takes a mount whose connection was ended, be it by the daemon or by somebody else, for one that is gone.
void unmount_dead(const char* mount_point, int connection) {
    if (connection < 0 || fuse_connection_of(mount_point) != connection)
        return;
    if (errdesc_t* e = spawn_tool({tool_paths().umount, "-fl", mount_point}))
        _errdesc_log(e, ERRDESC_ERROR);
}

}  // namespace

bool fuse_check_arguments(const fuse_args& args, bool* foreground) {
    static const fuse_opt wanted[] = {
        {"-f", offsetof(fuse_request_t, foreground), 1},
        {"-d", offsetof(fuse_request_t, foreground), 1},
        {"debug", offsetof(fuse_request_t, foreground), 1},
        FUSE_OPT_END,
    };
    fuse_request_t request{};
    fuse_args copy = FUSE_ARGS_INIT(0, nullptr);
    bool passed = true;
    for (int i = 0; i < args.argc; i++)
        passed = passed && fuse_opt_add_arg(&copy, args.argv[i]) == 0;
    passed = passed && fuse_opt_parse(&copy, &request, wanted, count_mount_points) == 0;
    fuse_opt_free_args(&copy);
    *foreground = request.foreground != 0;
    return passed;
}

bool fuse_serve(fuse_args* args, const std::function<void()>& on_serving, const std::function<void()>& on_ending) {
    static const fuse_operations oper = mirador_oper();
    char* mountpoint = nullptr;
    int multithreaded = 0;
    if (fuse_opt_insert_arg(args, 1, "-f") != 0)  // in front: behind "--" it would be a file's name
        return false;
    block_child_signal();
    fuse* handle = fuse_setup(args->argc, args->argv, &oper, sizeof oper, &mountpoint, &multithreaded, nullptr);
    if (handle == nullptr) {
        std::fprintf(stderr, "mirador: cannot mount on %s\n", fs_options().proxy_mount_point);
        return false;
    }
    const int connection = fuse_connection_of(mountpoint);
    allow_corcbt_opens(multithreaded != 0);
    on_serving();
    run_loop(handle, multithreaded != 0, connection, on_ending);
    // FUSE's teardown takes its signal handlers away, and who asks once more for the end must not cut it short: disks
    // are taken apart and snapshots removed yet.
    block_signals();
    fuse_teardown(handle, mountpoint);
    unmount_dead(fs_options().proxy_mount_point, connection);
    open_files().release_all();
    return true;
}

}  // namespace mirador
