// SPDX-License-Identifier: Apache-2.0
#include "tools/fuse-dmsetup/mapper_fuse.h"

#define FUSE_USE_VERSION 26
#include <fuse_lowlevel.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <memory>
#include <numeric>
#include <thread>
#include <vector>

#include "lib/cor_string.h"
#include "lib/file_io.h"
#include "lib/tool_paths.h"

namespace mirador {
namespace {

constexpr double forever = 86400;      // seconds; nothing about an inode number ever changes
constexpr unsigned read_ahead = 4096;  // KiB
constexpr std::chrono::seconds forget_limit(1);
constexpr mode_t directory_mode = S_IFDIR | 0755;
constexpr mode_t file_mode = S_IFREG | 0440;

// Reads come back to the kernel as background requests. Every one may wait for a read of another FUSE file system that
// waits for this one, so there must be more of them than readers can have waiting.
constexpr char session_options[] = "max_background=512";
constexpr char mount_options[] = "ro,nonempty,allow_other,default_permissions,fsname=fuse-dmsetup,subtype=mapper";

mapper_t& mapper_of(fuse_req_t request) {
    return *static_cast<mapper_t*>(fuse_req_userdata(request));
}

struct stat attributes(mapper_inode_t inode, std::uint64_t size) {
    struct stat st = {};
    st.st_ino = inode;
    st.st_mode = inode == FUSE_ROOT_ID ? directory_mode : file_mode;
    st.st_nlink = inode == FUSE_ROOT_ID ? 2 : 1;
    st.st_size = static_cast<off_t>(size);
    st.st_blocks = static_cast<blkcnt_t>(size / sector_size);
    return st;
}

// Names are looked up each time: a removed device's name may come back as another device.
void op_lookup(fuse_req_t request, fuse_ino_t, const char* name) {
    const auto entry = mapper_of(request).find(std::string(name));
    if (!entry) {
        fuse_reply_err(request, ENOENT);
        return;
    }
    fuse_entry_param reply = {};
    reply.ino = entry->inode;
    reply.attr = attributes(entry->inode, entry->size);
    reply.attr_timeout = forever;
    fuse_reply_entry(request, &reply);
}

void op_getattr(fuse_req_t request, fuse_ino_t inode, fuse_file_info*) {
    const auto entry = mapper_of(request).find(inode);
    if (!entry && inode != FUSE_ROOT_ID) {
        fuse_reply_err(request, ENOENT);
        return;
    }
    const struct stat st = attributes(inode, entry ? entry->size : 0);
    fuse_reply_attr(request, &st, forever);
}

void op_open(fuse_req_t request, fuse_ino_t inode, fuse_file_info* file) {
    if (!mapper_of(request).open(inode)) {
        fuse_reply_err(request, ENOENT);
        return;
    }
    file->keep_cache = 1;
    if (fuse_reply_open(request, file) == -ENOENT)  // whoever opened it was interrupted; no release follows
        mapper_of(request).release(inode);
}

void op_release(fuse_req_t request, fuse_ino_t inode, fuse_file_info*) {
    mapper_of(request).release(inode);
    fuse_reply_err(request, 0);
}

// Reads the pieces one behind the other, all or none: the kernel takes a short reply for the device's end, and the
// device for as long as that from then on. 0, or errno.
int read_pieces(const std::vector<dm_piece_t>& pieces, char* bytes) {
    for (const dm_piece_t& piece : pieces) {
        std::size_t done = piece.size;
        if (piece.device == nullptr)
            std::memset(bytes, 0, piece.size);
        else if (const errdesc_t* e =
                     cor_pread(piece.device->fd.get(), bytes, piece.size, static_cast<off_t>(piece.offset), &done))
            return e->number;
        if (done < piece.size)
            return EIO;
        bytes += piece.size;
    }
    return 0;
}

void op_read(fuse_req_t request, fuse_ino_t inode, size_t size, off_t offset, fuse_file_info*) {
    const auto table = mapper_of(request).table(inode);
    if (!table) {
        fuse_reply_err(request, EIO);
        return;
    }
    const auto pieces = table->map(static_cast<std::uint64_t>(offset), size);
    const auto length = std::accumulate(pieces.begin(), pieces.end(), std::size_t{0},
                                        [](std::size_t sum, const dm_piece_t& piece) { return sum + piece.size; });
    const auto bytes = std::make_unique_for_overwrite<char[]>(length);
    const int number = read_pieces(pieces, bytes.get());
    if (number != 0)
        fuse_reply_err(request, number);
    else
        fuse_reply_buf(request, bytes.get(), length);
}

void op_readdir(fuse_req_t request, fuse_ino_t, size_t size, off_t offset, fuse_file_info*) {
    auto entries = mapper_of(request).list();
    entries.insert(entries.begin(), {{".", FUSE_ROOT_ID, 0}, {"..", FUSE_ROOT_ID, 0}});
    std::vector<char> buffer(size);
    std::size_t used = 0;
    for (auto index = static_cast<std::size_t>(offset); index < entries.size(); ++index) {
        const struct stat st = attributes(entries[index].inode, 0);
        const std::size_t needed = fuse_add_direntry(request, buffer.data() + used, size - used,
                                                     entries[index].name.c_str(), &st, static_cast<off_t>(index + 1));
        if (needed > size - used)
            break;
        used += needed;
    }
    fuse_reply_buf(request, buffer.data(), used);
}

// One "-o" and its options, as libfuse takes them.
struct arguments_t {
    explicit arguments_t(const char* options) : words{"fuse-dmsetup", "-o", options} {}
    ~arguments_t() { fuse_opt_free_args(&args); }
    arguments_t(const arguments_t&) = delete;
    arguments_t& operator=(const arguments_t&) = delete;

    std::array<std::string, 3> words;
    std::array<char*, 4> argv = {words[0].data(), words[1].data(), words[2].data(), nullptr};
    fuse_args args = FUSE_ARGS_INIT(3, argv.data());
};

// A kernel that doesn't let it keeps its default.
void set_read_ahead(const std::string& directory) {
    struct stat st = {};
    if (stat(directory.c_str(), &st) == 0)
        std::ofstream(cor_format("/sys/class/bdi/%u:%u/read_ahead_kb", major(st.st_dev), minor(st.st_dev)))
            << read_ahead;
}

// Has the kernel drop what it cached of a device. It waits for reads that are under way, and those for the device, so
// there is a bound on waiting for the kernel.
void forget_cached(fuse_chan* channel, const mapper_entry_t& entry) {
    std::packaged_task<void()> task([channel, entry] {
        fuse_lowlevel_notify_inval_inode(channel, entry.inode, 0, 0);
        fuse_lowlevel_notify_inval_entry(channel, FUSE_ROOT_ID, entry.name.c_str(), entry.name.size());
    });
    const std::future<void> done = task.get_future();
    std::thread(std::move(task)).detach();
    done.wait_for(forget_limit);
}

fuse_lowlevel_ops operations() {
    fuse_lowlevel_ops ops = {};
    ops.lookup = op_lookup;
    ops.getattr = op_getattr;
    ops.open = op_open;
    ops.release = op_release;
    ops.read = op_read;
    ops.readdir = op_readdir;
    return ops;
}

}  // namespace

errdesc_t* mapper_fuse_start(mapper_t* mapper) {
    const std::string& directory = tool_paths().mapper_dir;
    mapper_fuse_detach_dead();
    mkdir(directory.c_str(), directory_mode & ALLPERMS);

    arguments_t mounting(mount_options);
    fuse_chan* channel = fuse_mount(directory.c_str(), &mounting.args);
    if (channel == nullptr)
        return errdesc_set_str(EIO, "cannot mount " + directory);
    arguments_t serving(session_options);
    const fuse_lowlevel_ops ops = operations();
    fuse_session* session = fuse_lowlevel_new(&serving.args, &ops, sizeof ops, mapper);
    if (session == nullptr)
        return errdesc_set_str(EIO, "cannot serve " + directory);
    fuse_session_add_chan(session, channel);

    mapper->on_changed = [channel](const mapper_entry_t& entry) { forget_cached(channel, entry); };
    std::thread([session] { fuse_session_loop_mt(session); }).detach();
    set_read_ahead(directory);
    return nullptr;
}

void mapper_fuse_stop() {
    umount2(tool_paths().mapper_dir.c_str(), MNT_DETACH);
}

void mapper_fuse_detach_dead() {
    const std::string& directory = tool_paths().mapper_dir;
    struct statfs status = {};
    const auto is_dead = [](int number) {  // the latter when it died while it was asked
        return number == ENOTCONN || number == ECONNABORTED;
    };
    while (statfs(directory.c_str(), &status) != 0 && is_dead(errno))
        if (umount2(directory.c_str(), MNT_DETACH) != 0)
            return;
}

}  // namespace mirador
