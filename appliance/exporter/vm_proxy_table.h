// SPDX-License-Identifier: Apache-2.0
// The open-file table: one shared record, a cookie, for every exported path that is open or was open recently, and a
// small handle for each open that FUSE knows.
//
// Which cookies the table holds, and the only ways in and out:
//   - a cookie enters with the first open (or attribute query) of its path, if need be in the place of a victim;
//   - it stays after its last release, with its snapshot and mappings, so that a reopen is cheap;
//   - it leaves when it is chosen as a victim, when an open of it fails or finds that the path leads elsewhere by now,
//     or at shutdown. What left never comes back: `detached` is set then, and the next open of the path makes a new
//     cookie.
// A handle owns what it reads from (descriptor, device reader, mapping, snapshot, overlay, byte counter), so it goes on
// working when its cookie has left the table; releasing it then changes no count.
//
// Locks, in this order: `corcbt_mutex` (one open of a changed-block file at a time, of those alone), the table lock
// (`mutex`: one open, release or idle eviction at a time; free while a changed-block file is set up), a cookie's
// `mutex` (its state while it is opened or torn down, free likewise), `list_mutex` (the list itself, held for moments
// only). Choosing a victim holds `list_mutex` and only tries cookies' locks, so a cookie that is being opened is never
// chosen. Attribute queries never wait for the table lock.
#pragma once

#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "appliance/lib/cordev_io.h"
#include "appliance/lib/vm_proxy_header.h"
#include "appliance/mounter/vdsk.h"
#include "lib/errdesc.h"
#include "lib/file_io.h"
#include "lib/thread_annotations.h"

namespace mirador {

class snapshot_use_t;
struct cbt_device_t;

// Bytes that replace the underlying ones in a range of an exported file.
struct fuse_fh_buffer_t {
    std::int64_t offset = -1;
    std::vector<std::uint8_t> buffer;  // empty: nothing is replaced
};

// What attribute queries may know of a cookie while it is being opened.
struct cookie_info_t {
    std::uint32_t type = 0;  // vm_proxy_header_type_t
    std::string vm_uuid;
    std::string devicemapper_path;  // empty until the disk was opened
};

struct vm_proxy_cookie_t {
    static constexpr std::uint32_t magic_value = 0xcccccccc;
    static constexpr std::uint32_t version_value = 1;

    // Constant after construction.
    std::uint32_t magic = magic_value;
    std::uint32_t version = version_value;
    std::string path;         // the exported path as FUSE gives it: the table's key
    std::string shadow_path;  // its file in the shadow tree

    // Own synchronisation.
    std::atomic<std::uint64_t> external_read_bytes = 0;  // bytes served to clients since the cookie was made
    // A template's disk, read without a snapshot, is a VM's by now, which writes to it. Once set, it stays.
    std::atomic<bool> is_vms = false;

    mutex_t mutex;

    // Guarded by `mutex`.
    std::int64_t ref GUARDED_BY(mutex) = 0;            // handles open on it; never negative
    std::time_t stamp GUARDED_BY(mutex) = 0;           // time of the last open or release
    std::time_t snapshot_time GUARDED_BY(mutex) = 0;   // when the snapshot behind the export was taken
    std::string virtual_machine GUARDED_BY(mutex);     // the VM's name
    std::string devicemapper_path GUARDED_BY(mutex);   // block device that the data comes from; empty: not opened yet
    fuse_fh_buffer_t buffered_data GUARDED_BY(mutex);  // the overlay
    bool is_copied GUARDED_BY(mutex) = false;          // a disk has been opened for a full copy
    std::shared_ptr<snapshot_use_t> snapshot GUARDED_BY(mutex);  // what the chain is frozen by; given back likewise
    std::shared_ptr<vdskdesc_t> vdskdesc GUARDED_BY(mutex);      // the opened chain; torn down with its last owner
    std::shared_ptr<cbt_device_t> cbt GUARDED_BY(mutex);   // a changed-block file's device; gone with its last owner
    std::uint64_t corcbt_file_size GUARDED_BY(mutex) = 0;  // bytes of it that are no padding
    cor_dev_ptr pdev GUARDED_BY(mutex);  // reads only what the guest uses; null: there is no telling what that is
    vm_proxy_header_t header GUARDED_BY(mutex) = {};
    bool detached GUARDED_BY(mutex) = false;  // has left the table

    // Publishes type, VM and device for attribute queries.
    void publish_info() REQUIRES(mutex) EXCLUDES(info_mutex);
    cookie_info_t info() const EXCLUDES(info_mutex);

  private:
    mutable mutex_t info_mutex;
    cookie_info_t info_ GUARDED_BY(info_mutex);
};
using cookie_ptr = std::shared_ptr<vm_proxy_cookie_t>;

// One open of FUSE's.
struct fuse_fh_t {
    static constexpr std::uint32_t magic_value = 0xf0005500;
    static constexpr std::uint32_t version_value = 1;

    std::uint32_t magic = magic_value;
    std::uint32_t version = version_value;
    std::shared_ptr<snapshot_use_t> snapshot;  // keeps the snapshot below the mapping
    unique_fd fd;
    fuse_fh_buffer_t buffered_data;
    bool collect_stats = false;  // what is read is counted
    bool cbt_losetup = false;    // as the second stream: a disk opened by its loop-file name
    std::string path;
    std::string extended_error_path;       // whose extended attributes carry the real error; empty: none
    std::shared_ptr<vdskdesc_t> vdskdesc;  // keeps the mapping behind `fd` and `pdev`
    bool optimize = false;                 // reads go through `pdev`, while the settings allow it
    cor_dev_ptr pdev;                      // given exactly when `optimize` is set
    std::shared_ptr<cbt_device_t> cbt;     // keeps a changed-block file's device behind `fd`
    // Its reads are to be single requests of the reader's, past the kernel's page cache, which belongs to a path and
    // has one size. A small file's readers may have opened different versions, which would come out mixed or cut. For a
    // changed-block file, the kernel's own requests are limited in number, and each would wait for another of them, the
    // one to the flat disk.
    bool direct_io = false;
    struct stat attributes {};         // as they were when it was opened
    std::uint32_t type = 0;            // vm_proxy_header_type_t
    std::string vm_uuid;               // whose file it is
    std::string template_shadow_path;  // given for a template's disk, which is read without a snapshot
    // Bytes of the device behind `fd`, before whose end no read comes out short; -1: a file, which may become shorter.
    std::int64_t device_size = -1;
    cookie_ptr cookie;
};

struct vm_proxy_open_list_t {
    static constexpr std::uint32_t magic_value = 0xdddddddd;
    static constexpr std::uint32_t version_value = 1;

    std::uint32_t magic = 0;
    std::uint32_t version = 0;
    mutex_t corcbt_mutex;  // held for an open of a changed-block file
    mutex_t mutex;         // the table lock
    mutex_t list_mutex;    // makes look-up, admission and removal one step
    std::vector<cookie_ptr> list GUARDED_BY(list_mutex);
};

// The one table. Every use asserts magic and version.
vm_proxy_open_list_t& vm_proxy_open_list();

// Sets the table up, once per process.
void vm_proxy_api_init();

// Finds the cookie of a path or makes one, reading its proxy header. The table never holds more than
// `export.max_session` cookies: a full one gives up its longest unused cookie first. Errors: the proxy header's, 24
// when every cookie is in use, the victim's eviction.
[[nodiscard]] errdesc_t* vm_proxy_get_cookie(const std::string& path, const std::string& shadow_path,
                                             cookie_ptr* cookie);

// Takes a cookie out of the table, if it is still in it.
void vm_proxy_remove_cookie(vm_proxy_cookie_t& cookie) REQUIRES(cookie.mutex);

}  // namespace mirador
