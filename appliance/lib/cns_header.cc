// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/cns_header.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "appliance/lib/registry.h"
#include "lib/clock.h"
#include "lib/cor_assert.h"
#include "lib/log.h"
#include "lib/walker.h"

namespace mirador {

mutex_t _cns_generation_mutex;

namespace {

constexpr std::int64_t sector = 512;  // bytes; the smallest block that a file system can have
constexpr int check_debug_level = 2;  // above it unusual attributes in headers are logged

errdesc_t* read_bytes(const std::string& header_path, cns_stub_header_t* header) {
    const unique_fd fd(open(header_path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!fd)
        return errdesc_set_str(errno, header_path);
    std::size_t done = 0;
    if (errdesc_t* e = cor_pread(fd.get(), header, sizeof *header, 0, &done)) {
        const errnum_t number = e->number;
        _errdesc_log(e, ERRDESC_ERROR);
        return errdesc_set_fmt(number, "_cns_read_proxy_header(%s): read error %s", header_path.c_str(),
                               errnum_text(number).c_str());
    }
    if (done < sizeof *header)
        return errdesc_set_fmt(ENOKEY, "_cns_read_proxy_header(%s): short read %zd", header_path.c_str(),
                               static_cast<ssize_t>(done));
    if (get_reg_settings()->debug_level > check_debug_level)
        cns_check_statb(header_path, "_cns_read_proxy_header", cor_statb_to_stat(header->cns_attrs.statb), false);
    return nullptr;
}

void assert_own_header(const cns_stub_header_t& header) {
    cor_assert(header.magic == cns_stub_header_t::magic_value);
    cor_assert(header.version == cns_stub_header_t::version_value);
    cor_assert(header.cns_attrs.magic == cns_attrs_t::magic_value);
    cor_assert(header.cns_attrs.version == cns_attrs_t::version_value);
}

// The fault stands before the path, so that a long path cannot push it out of the text.
errdesc_t* refuse(const std::string& path, const std::string& fault) {
    return errdesc_set_fmt(EINVAL, "Node header refused, %s: %s", fault.c_str(), path.c_str());
}

std::int64_t blocks_of(const cns_stub_header_t& header) {
    return static_cast<std::int64_t>(header.cns_attrs.statb.blocks);
}

void set_times(cor_statb_t* statb, std::int32_t seconds) {
    statb->atime_sec = seconds;
    statb->mtime_sec = seconds;
    statb->ctime_sec = seconds;
}

// Settles what a new header takes over from the one it replaces, if any, and returns the blocks of that one.
std::int64_t take_over(const std::string& header_path, cns_attrs_t* attrs) REQUIRES(_cns_generation_mutex) {
    std::int64_t old_blocks = 0;
    const std::int32_t new_time = attrs->statb.ctime_sec;
    std::int32_t previous_time = 0;
    std::unique_ptr<cns_stub_header_t> old;
    const errdesc_t* unread = _cns_read_proxy_header(header_path, false, &old);
    if (unread != nullptr) {
        ts_dprintf(2, "Creating proxy header(%s), new_time = %ld\n", header_path.c_str(), long{new_time});
    } else {
        previous_time = old->cns_attrs.statb.ctime_sec;
        ts_dprintf(2, "Updating proxy header(%s) prev_time = %ld, new_time = %ld\n", header_path.c_str(),
                   long{previous_time}, long{new_time});
        old_blocks = blocks_of(*old);
        const std::uint64_t previous_generation = old->cns_attrs.generation;
        attrs->generation = std::max<std::uint64_t>(attrs->generation, previous_generation);
    }
    if (new_time != 0)
        set_times(&attrs->statb, new_time);
    else
        set_times(&attrs->statb, previous_time != 0 ? previous_time : static_cast<std::int32_t>(clock_now()));
    return old_blocks;
}

errdesc_t* open_temporary(const std::string& header_path, std::string* temporary, unique_fd* fd) {
    *temporary = cor_format("%s.tmpXXXXXX", header_path.c_str());
    const std::string pattern = *temporary;
    fd->reset(mkostemp(temporary->data(), O_CLOEXEC));
    if (*fd)
        return nullptr;
    if (errno == EEXIST)
        return errdesc_set_fmt(EEXIST, "Cannot make unique temporary file from %s", header_path.c_str());
    return errdesc_set_str(errno, pattern);
}

// Writes the image into the temporary file and renames that; *renamed when it has become the header.
errdesc_t* put_in_place(const cns_stub_header_t& image, int fd, const std::string& temporary,
                        const std::string& header_path, bool* renamed) {
    std::size_t done = 0;
    if (errdesc_t* e = cor_pwrite(fd, &image, sizeof image, 0, &done)) {
        _errdesc_log(e, ERRDESC_ERROR);
        return e;
    }
    cor_assert(done == sizeof image);
    *renamed = rename(temporary.c_str(), header_path.c_str()) == 0;
    if (!*renamed)
        return errdesc_set_fmt(errno, "rename %s to %s failed", temporary.c_str(), header_path.c_str());
    return nullptr;
}

bool is_file(const walker_cb_desc_t& entry) {
    return !S_ISDIR(entry.sb.st_mode) && !S_ISLNK(entry.sb.st_mode);
}

void count_file(cns_handle_t* ns, const std::string& path) {
    std::unique_ptr<cns_stub_header_t> header;
    if (errdesc_t* e = _cns_read_proxy_header(path, true, &header)) {
        _errdesc_log(e, ERRDESC_WARNING);
        return;
    }
    const mutex_lock_t lock(_cns_generation_mutex);
    _cns_add_blocks(ns, blocks_of(*header));
}

}  // namespace

std::string _cns_dir_header(const std::string& place) {
    return cor_format_path("%s/%s%s", place.c_str(), cns_internal_prefix.data(), ".dir");
}

errdesc_t* cns_check_header(const cns_stub_header_t& header, const std::string& path) {
    const cns_attrs_t& attrs = header.cns_attrs;
    if (header.magic != cns_stub_header_t::magic_value || attrs.magic != cns_attrs_t::magic_value)
        return refuse(path, cor_format("wrong magic 0x%x, 0x%x", header.magic, attrs.magic));
    if (header.version != cns_stub_header_t::version_value || attrs.version != cns_attrs_t::version_value)
        return refuse(path, cor_format("unknown version %u, %u", header.version, attrs.version));
    if (attrs.app_hdr_size > cns_app_header_size)
        return refuse(path, cor_format("application header of %u bytes", attrs.app_hdr_size));
    if (attrs.statb.size < 0)
        return refuse(path, cor_format("negative size %jd", std::intmax_t{attrs.statb.size}));
    if (attrs.statb.blocks > static_cast<std::uint64_t>(attrs.statb.size / sector + 1))
        return refuse(path, cor_format("%ju blocks for its size", std::uintmax_t{attrs.statb.blocks}));
    return nullptr;
}

errdesc_t* _cns_read_proxy_header(const std::string& header_path, bool checked,
                                  std::unique_ptr<cns_stub_header_t>* header) {
    cor_assert(header != nullptr && *header == nullptr);
    auto read = std::make_unique<cns_stub_header_t>();
    RETURN_IF_ERROR(read_bytes(header_path, read.get()));
    if (checked)
        RETURN_IF_ERROR(cns_check_header(*read, header_path));
    assert_own_header(*read);
    *header = std::move(read);
    return nullptr;
}

errdesc_t* _cns_create_proxy_header(cns_handle_t* ns, const std::string& header_path, cns_attrs_t attrs,
                                    const void* app_hdr, std::size_t app_hdr_size) {
    cor_assert(attrs.app_hdr_size == app_hdr_size);
    cor_assert(app_hdr != nullptr || app_hdr_size == 0);
    cns_stub_header_t image{};
    image.magic = cns_stub_header_t::magic_value;
    image.version = cns_stub_header_t::version_value;
    if (app_hdr_size != 0)
        std::memcpy(image.app_header.data(), app_hdr, app_hdr_size);

    std::string temporary;
    unique_fd fd;
    bool renamed = false;
    errdesc_t* e = nullptr;
    {
        const mutex_lock_t lock(_cns_generation_mutex);
        const std::int64_t old_blocks = take_over(header_path, &attrs);
        image.cns_attrs = attrs;
        RETURN_IF_ERROR(open_temporary(header_path, &temporary, &fd));
        _cns_add_blocks(ns, blocks_of(image));  // stays, whatever comes: the count is never below what is there
        e = put_in_place(image, fd.get(), temporary, header_path, &renamed);
        if (renamed)
            _cns_add_blocks(ns, -old_blocks);
    }
    if (!renamed)
        unlink(temporary.c_str());
    return e;
}

int _cns_unlink_header(cns_handle_t* ns, const std::string& header_path) {
    const mutex_lock_t lock(_cns_generation_mutex);
    const std::int64_t blocks = _cns_header_blocks(header_path);
    if (unlink(header_path.c_str()) != 0)
        return errno;
    _cns_add_blocks(ns, -blocks);
    return 0;
}

std::int64_t _cns_header_blocks(const std::string& header_path) {
    const errdesc_keeper_t keep;
    std::unique_ptr<cns_stub_header_t> header;
    return _cns_read_proxy_header(header_path, true, &header) == nullptr ? blocks_of(*header) : 0;
}

void _cns_add_blocks(cns_handle_t* ns, std::int64_t blocks) {
    const std::int64_t before = ns->fs_blocks_used;
    std::int64_t after = 0;
    cor_assert(before >= 0);
    cor_assert(!__builtin_add_overflow(before, blocks, &after));
    cor_assert_text(after >= 0, "fs_blocks_used >= 0");
    ns->fs_blocks_used = after;
}

void _cns_init_fs_blocks_used(cns_handle_t* ns) {
    std::vector<std::thread> walk(1);
    errdesc_t* e = walker_start(
        {.base = ns->root, .filter = is_file, .callback = [ns](const auto& entry) { count_file(ns, entry.path); }},
        walk.data());
    if (e != nullptr)
        _errdesc_log(e, ERRDESC_WARNING);
    else
        walker_wait(&walk);
}

}  // namespace mirador
