// SPDX-License-Identifier: Apache-2.0
// A tree of nodes on a local directory, normally a private tmpfs. A node stands for one exported object: a regular node
// is a file of 4096 bytes, its header; a directory node is a directory that holds its header as ".corvantis.dir"; the
// top has none. A header tells the attributes that clients see, an owner and a generation by which stale nodes are
// pruned, and up to 3952 bytes of the application's own. Names that begin with ".corvantis" are internal: never listed.
//
// Paths are the clients': "/" or "/a/b"; a missing leading slash makes no difference. A path with a component ".." or
// an internal name is turned down with EINVAL before anything is done ("Namespace path refused, <fault>: <path>"); one
// whose place below the root has 4096 characters or more is a fatal assertion, which cns_check_path answers with
// ENAMETOOLONG instead. So are a null or dead handle and a header whose magic or version is wrong.
//
// A header is replaced by renaming a new one into place: readers meet the old one or the new one. Any thread may call;
// one process-wide mutex makes changes of headers, and the count of blocks with them, one at a time. It is a leaf but
// for log lines. The handle must outlive all calls.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>
#include <string>

#include "appliance/lib/statb_format.h"
#include "lib/cor_string.h"
#include "lib/errdesc.h"
#include "lib/file_io.h"

namespace mirador {

inline constexpr std::size_t cns_app_header_size = 3952;

#pragma pack(push, 1)

struct cns_attrs_t {
    static constexpr std::uint32_t magic_value = 0x20100119;
    static constexpr std::uint32_t version_value = 1;

    std::uint32_t magic;
    std::uint32_t version;
    std::uint32_t app_hdr_type;  // the application's code for its header
    std::uint32_t app_hdr_size;  // bytes of it in use
    std::uint64_t owner;
    std::uint64_t generation;
    cor_statb_t statb;  // `blocks` counts blocks of the root's file system
};
static_assert(sizeof(cns_attrs_t) == 128);
static_assert(offsetof(cns_attrs_t, magic) == 0 && offsetof(cns_attrs_t, version) == 4);
static_assert(offsetof(cns_attrs_t, app_hdr_type) == 8 && offsetof(cns_attrs_t, app_hdr_size) == 12);
static_assert(offsetof(cns_attrs_t, owner) == 16 && offsetof(cns_attrs_t, generation) == 24);
static_assert(offsetof(cns_attrs_t, statb) == 32);

// A node's header, little-endian, the whole file.
struct cns_stub_header_t {
    static constexpr std::uint32_t magic_value = 0x121109BB;
    static constexpr std::uint32_t version_value = 1;

    std::uint32_t magic;
    std::uint32_t version;
    cns_attrs_t cns_attrs;
    std::uint64_t crc;  // always 0
    std::array<std::uint8_t, cns_app_header_size> app_header;
};
static_assert(sizeof(cns_stub_header_t) == 4096);
static_assert(offsetof(cns_stub_header_t, magic) == 0 && offsetof(cns_stub_header_t, version) == 4);
static_assert(offsetof(cns_stub_header_t, cns_attrs) == 8 && offsetof(cns_stub_header_t, crc) == 136);
static_assert(offsetof(cns_stub_header_t, app_header) == 144);

#pragma pack(pop)

// Options of cns_create.
enum cns_options_t : int {
    CNS_OPT_USE_DIR = 1,   // the root is a directory that exists; else a tmpfs is mounted there
    CNS_OPT_WRITABLE = 2,  // with CNS_OPT_USE_DIR: and it must be writable
};

struct cns_state_t {
    static constexpr std::uint32_t magic_value = 0x121109aa;
    static constexpr std::uint32_t version_value = 1;

    std::uint32_t magic = magic_value;
    std::uint32_t version = version_value;
    int options = 0;
    std::string root;
    std::string symlink_root;                  // against which targets of links are translated
    std::optional<std::string> mount_options;  // of the tmpfs
    std::uint64_t gen = 0;
    std::atomic<std::int64_t> fs_blocks_used = 0;  // of all headers; changed under the module's mutex, never negative
    int fs_sectors_per_block = 0;                  // 512-byte sectors of a block of the root's file system
    uid_t owner_uid = 0;                           // of new nodes
    gid_t owner_gid = 0;
};
using cns_handle_t = cns_state_t;

// A path translated to its place in the tree.
struct cns_pbuf_t {
    char path_buf[path_size];
};

// Takes the directory `root` as it is, counting the blocks of the headers that it holds (files that are none are logged
// at level 4 and left alone), or mounts a tmpfs there. *handle must be null on entry (asserted). Errors: errno with
// "<root>/."; those of tmpfs_create.
[[nodiscard]] errdesc_t* cns_create(const std::string& root, const std::string& symlink_root,
                                    const std::optional<std::string>& mount_options, int options, uid_t owner_uid,
                                    gid_t owner_gid, std::unique_ptr<cns_handle_t>* handle);

// Unmounts and removes the tmpfs, if cns_create mounted one, and frees the state; *handle is null then in any case.
// Error: tmpfs_remove's.
[[nodiscard]] errdesc_t* cns_destroy(std::unique_ptr<cns_handle_t>* handle);

// Whether a path may be given to the functions below. EINVAL, ENAMETOOLONG as told above.
[[nodiscard]] errdesc_t* cns_check_path(const cns_handle_t* ns, const std::string& path);

// "<root>/<path without its leading slash>", "<root>/." for "/"; with symlink_root for the root. Refuses nothing.
char* cns_translate_path(const cns_handle_t* ns, const std::string& path, cns_pbuf_t* pbuf);
char* cns_translate_symlink_path(const cns_handle_t* ns, const std::string& path, cns_pbuf_t* pbuf);

// What a node is made of.
struct cns_node_t {
    std::uint64_t owner = 0;
    std::uint64_t generation = 0;
    std::time_t time = 0;        // its three times; 0: those of the node it replaces, else now
    mode_t file_type = S_IFREG;  // bits of 0xF000
    mode_t permissions = 0;      // bits of 0xFFF
    std::int64_t size = 0;       // bytes, as exported
    std::uint32_t app_hdr_type = 0;
    const void* app_hdr = nullptr;  // null: no application header
    std::size_t app_hdr_size = 0;   // bytes, at most cns_app_header_size (asserted)
};

// Creates or replaces a node. A node's generation never goes backwards: the higher one stays. Errors: errno with the
// directory; those of writing the header: "Cannot make unique temporary file from %s", errno with the temporary name,
// cor_pwrite's, "rename %s to %s failed".
[[nodiscard]] errdesc_t* cns_create_node(cns_handle_t* ns, const std::string& path, const cns_node_t& node);

// Creates a directory node for each beginning of `path` that ends before a slash; the last component therefore only if
// a slash follows it. Errors: cns_create_node's, but not EEXIST. Asserted: `path` has less than 4096 characters.
[[nodiscard]] errdesc_t* cns_mkdirp(cns_handle_t* ns, const std::string& path, std::time_t time, mode_t permissions,
                                    std::uint64_t owner, std::uint64_t generation);

// The attributes and the first `app_hdr_size` (asserted: at most cns_app_header_size) bytes of the application header;
// either may be null. A directory's `statb` is the directory's own; the top and symbolic links have that alone. Errors:
// errno with the translated path; those of reading a header: errno with its path, the number of a failed read with
// "_cns_read_proxy_header(%s): read error %s", 126 with "_cns_read_proxy_header(%s): short read %zd".
[[nodiscard]] errdesc_t* cns_get_attrs(const cns_handle_t* ns, const std::string& path, cns_attrs_t* attrs,
                                       void* app_hdr, std::size_t app_hdr_size);

// When the node was last written: its header file's own modification time; 0 on error (errno with the path).
[[nodiscard]] errdesc_t* cns_proxy_mtime(const cns_handle_t* ns, const std::string& path, std::time_t* mtime);

// Listing. cns_readdir gives one name after the other, "." and ".." among them and internal ones not, and nothing at
// the end. Error: errno with the translated path.
[[nodiscard]] errdesc_t* cns_opendir(const cns_handle_t* ns, const std::string& path, dir_ptr* dir);
std::optional<std::string> cns_readdir(const cns_handle_t* ns, const dir_ptr& dir);
void cns_closedir(const cns_handle_t* ns, dir_ptr* dir);

// Removes a node that is no directory, or a link. Error: errno with the translated path.
[[nodiscard]] errdesc_t* cns_unlink(cns_handle_t* ns, const std::string& path);

// Removes a directory node: with `force` with all that it holds, else only when it holds nothing but internal names
// (ENOTEMPTY with the translated path); a missing one is an error without `force` only. Errors: errno with the
// directory, or with what in it cannot be removed; rmdirr's.
[[nodiscard]] errdesc_t* cns_rmdir(cns_handle_t* ns, const std::string& path, bool force);

// Makes the link `link_path`; `target` is stored as it is. Error: errno with "symlink failed: …".
[[nodiscard]] errdesc_t* cns_symlink(cns_handle_t* ns, const std::string& target, const std::string& link_path);

// Renames a node, over another if there is one. Error: errno with "Cannot rename %s to %s".
[[nodiscard]] errdesc_t* cns_rename(cns_handle_t* ns, const std::string& old_path, const std::string& new_path);

// The count of blocks, divided by the sectors of a block.
std::int64_t cns_get_fs_blocks_used(const cns_handle_t* ns);

// Takes and gives back the lock of a directory, held across processes by the existence of a directory
// ".corvantis.lck" in it. Errors: errno with that directory, so EEXIST when it is held.
[[nodiscard]] errdesc_t* cns_lock(cns_handle_t* ns, const std::string& dir_path);
[[nodiscard]] errdesc_t* cns_unlock(cns_handle_t* ns, const std::string& dir_path);

// Removes the nodes in the directory `path`, and with `recursive` below it, that belong to `owner` and have a lower
// generation than `generation`, and all links whose target does not exist. Directories go with all that they hold.
// Errors: that of a directory that cannot be opened or removed, and of a node that cannot be read; it ends the walk.
[[nodiscard]] errdesc_t* cns_prune(cns_handle_t* ns, const std::string& path, std::uint64_t owner,
                                   std::uint64_t generation, bool recursive);

// Whether 4096 bytes are a header that may be acted on: EINVAL with "Node header refused, <fault>: <path>" for a wrong
// magic or version, an application header above its room, a size or count of blocks that cannot be.
[[nodiscard]] errdesc_t* cns_check_header(const cns_stub_header_t& header, const std::string& path);

// Logs "%s: %s: mode <%o (%s), %04o> , size %jd\n" of the caller's name, path and status, unless it is that of
// a directory or regular file with permissions 0777 and `force` is not set.
void cns_check_statb(const std::string& path, const char* caller, const struct stat& st, bool force);

// Prints attributes, one field a line; null is told as such.
void cns_attrs_dump(const cns_attrs_t* attrs, std::FILE* stream = stderr);

}  // namespace mirador
