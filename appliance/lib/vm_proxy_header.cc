// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/vm_proxy_header.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <string_view>

#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/file_io.h"

namespace mirador {
namespace {

constexpr mode_t temporary_mode = 0600;

// The bytes of a shadow file, whatever they say.
errdesc_t* read_record(const std::string& shadow_path, std::unique_ptr<vm_proxy_header_t>* out) {
    cor_assert(out != nullptr && *out == nullptr);
    auto header = std::make_unique<vm_proxy_header_t>();
    // A FIFO in the place of the file must not hold the caller.
    const unique_fd fd(open(shadow_path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd)
        return errdesc_set_str(errno, shadow_path);
    std::size_t done = 0;
    if (errdesc_t* e = cor_pread(fd.get(), header.get(), sizeof *header, 0, &done)) {
        const errnum_t number = e->number;
        _errdesc_log(e, ERRDESC_ERROR);
        return errdesc_set_fmt(number, "vm_read_proxy_header(%s): read error %s", shadow_path.c_str(),
                               errnum_text(number).c_str());
    }
    if (done < sizeof *header)
        return errdesc_set_fmt(ENOKEY, "vm_read_proxy_header(%s): short read %zd", shadow_path.c_str(),
                               static_cast<ssize_t>(done));
    *out = std::move(header);
    return nullptr;
}

void assert_own_header(const vm_proxy_header_t& header) {
    cor_assert(header.magic == vm_proxy_header_t::magic_value);
    cor_assert(header.version == vm_proxy_header_t::version_value);
}

bool is_known_type(vm_proxy_header_type_t type) {
    return type > VM_PROXY_HEADER_UNKNOWN && type <= VM_PROXY_HEADER_CFG;
}

template <std::size_t N>
bool is_terminated(const char (&text)[N]) {
    return std::memchr(text, '\0', N) != nullptr;
}

template <std::size_t N>
std::string_view text_of(const char (&text)[N]) {
    return {text, strnlen(text, N)};
}

// The fault stands before the path, so that a long path cannot push it out of the text.
errdesc_t* refuse(const std::string& path, const std::string& fault) {
    return errdesc_set_fmt(EINVAL, "Proxy header refused, %s: %s", fault.c_str(), path.c_str());
}

errdesc_t* write_record(const vm_proxy_header_t& header, const std::string& path) {
    const unique_fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, temporary_mode));
    if (!fd)
        return errdesc_set_str(errno, path);
    std::size_t done = 0;
    if (errdesc_t* e = cor_pwrite(fd.get(), &header, sizeof header, 0, &done))
        return errdesc_set_str(e->number, path);
    return done == sizeof header ? nullptr : errdesc_set_str(EIO, path);
}

// Calendar text, which carries its own line end.
void dump_time(const char* name, std::time_t time, std::FILE* stream) {
    std::array<char, 64> text{};
    const char* shown = ctime_r(&time, text.data());
    std::fprintf(stream, "vm_proxy_header->statb.%s = %s", name, shown != nullptr ? shown : "?\n");
}

void dump_text(const char* name, std::string_view text, std::FILE* stream) {
    std::fprintf(stream, "vm_proxy_header->%s = %.*s\n", name, static_cast<int>(text.size()), text.data());
}

}  // namespace

const char* vm_proxy_header_type_str(vm_proxy_header_type_t type) {
    switch (type) {
        case VM_PROXY_HEADER_UNKNOWN:
            return "UNKNOWN";
        case VM_PROXY_HEADER_VMDK_FLAT:
            return "VMDK_FLAT";
        case VM_PROXY_HEADER_VMDK_ASCII:
            return "VMDK_ASCII";
        case VM_PROXY_HEADER_VMX:
            return "VMX";
        case VM_PROXY_HEADER_VMDK_CORCBT:
            return "VMDK_CORCBT";
        case VM_PROXY_HEADER_CFG:
            return "CFG";
    }
    return "OUT OF RANGE!";
}

std::uint64_t proxy_header_blocks(std::int64_t size) {
    constexpr std::int64_t block_size = 512;
    return static_cast<std::uint64_t>(size / block_size + (size % block_size != 0 ? 1 : 0));
}

vm_proxy_header_t vm_proxy_header_make(vm_proxy_header_type_t type) {
    vm_proxy_header_t header{};
    header.magic = vm_proxy_header_t::magic_value;
    header.version = vm_proxy_header_t::version_value;
    header.type = type;
    return header;
}

errdesc_t* vm_proxy_read_header(const std::string& shadow_path, std::unique_ptr<vm_proxy_header_t>* out) {
    RETURN_IF_ERROR(read_record(shadow_path, out));
    assert_own_header(**out);
    return nullptr;
}

errdesc_t* vm_proxy_read_header_checked(const std::string& shadow_path, std::unique_ptr<vm_proxy_header_t>* out) {
    RETURN_IF_ERROR(read_record(shadow_path, out));
    if (errdesc_t* e = vm_proxy_header_check(**out, shadow_path)) {
        out->reset();
        return e;
    }
    assert_own_header(**out);
    return nullptr;
}

errdesc_t* vm_proxy_header_check(const vm_proxy_header_t& header, const std::string& path) {
    if (header.magic != vm_proxy_header_t::magic_value)
        return refuse(path, cor_format("wrong magic 0x%x", header.magic));
    if (header.version != vm_proxy_header_t::version_value)
        return refuse(path, cor_format("unknown version %u", header.version));
    if (!is_known_type(header.type))
        return refuse(path, cor_format("unusable type %u", std::uint32_t{header.type}));
    if (!is_terminated(header.path) || !is_terminated(header.vm_uuid) || !is_terminated(header.hv_name))
        return refuse(path, "a text without end");
    if (header.statb.size < 0)
        return refuse(path, cor_format("negative size %jd", std::intmax_t{header.statb.size}));
    if (header.statb.blocks > proxy_header_blocks(header.statb.size))
        return refuse(path, cor_format("%ju blocks for %jd bytes", std::uintmax_t{header.statb.blocks},
                                       std::intmax_t{header.statb.size}));
    return nullptr;
}

errdesc_t* vm_proxy_write_header(const vm_proxy_header_t& header, const std::string& shadow_path) {
    const std::string temporary = shadow_path + ".tmp";
    errdesc_t* e = write_record(header, temporary);
    if (e == nullptr && rename(temporary.c_str(), shadow_path.c_str()) != 0)
        e = errdesc_set_fmt(errno, "rename %s to %s failed", temporary.c_str(), shadow_path.c_str());
    if (e != nullptr)
        unlink(temporary.c_str());
    return e;
}

void vm_proxy_header_dump(const char* label, const vm_proxy_header_t& header, std::FILE* stream) {
    std::fprintf(stream, "%s\n", label);
    std::fprintf(stream, "vm_proxy_header->magic = %x\n", header.magic);
    std::fprintf(stream, "vm_proxy_header->version = %d\n", static_cast<int>(header.version));
    std::fprintf(stream, "vm_proxy_header->type = %s\n", vm_proxy_header_type_str(header.type));
    dump_time("st_mtime", header.statb.mtime_sec, stream);
    dump_time("st_atime", header.statb.atime_sec, stream);
    dump_time("st_ctime", header.statb.ctime_sec, stream);
    std::fprintf(stream, "vm_proxy_header->statb.st_size = %jd\n", intmax_t{header.statb.size});
    dump_text("path", text_of(header.path), stream);
    dump_text("vm_uuid", text_of(header.vm_uuid), stream);
    dump_text("hv_name", text_of(header.hv_name), stream);
    std::fprintf(stream, "vm_proxy_header->can_optimize = %s\n", header.can_optimize != 0 ? "TRUE" : "FALSE");
}

}  // namespace mirador
