// SPDX-License-Identifier: Apache-2.0
#include <cerrno>
#include <cstdint>
#include <cstdio>

#include "appliance/lib/vmcfg.h"
#include "lib/cor_assert.h"

namespace mirador {
namespace {

using text_t = std::optional<std::string>;

constexpr std::size_t time_room = 64;

void print_text(std::FILE* stream, const char* key, const text_t& text) {
    if (text)
        std::fprintf(stream, "%s = \"%s\"\n", key, cfg_escape_string(*text).c_str());
}

void print_disk_text(std::FILE* stream, int index, const char* key, const text_t& text) {
    if (text)
        std::fprintf(stream, "vmdk.%d.%s = \"%s\"\n", index, key, cfg_escape_string(*text).c_str());
}

void print_disk(std::FILE* stream, int index, const vmcfg_vd_t& disk) {
    print_disk_text(stream, index, "name", disk.name);
    print_disk_text(stream, index, "extent-name", disk.extentname);
    print_disk_text(stream, index, "rename", disk.rename);
    print_disk_text(stream, index, "extent-rename", disk.extentrename);
    print_disk_text(stream, index, "fpath", disk.fpath);
    print_disk_text(stream, index, "directory", disk.directory);
    print_disk_text(stream, index, "dsname", disk.dsname);
    std::fprintf(stream, "vmdk.%d.size = %ju\n", index, std::uintmax_t{disk.size});
    std::fprintf(stream, "vmdk.%d.type = \"%s\"\n", index, cfg_vdsk_type_to_string(disk.type));
}

}  // namespace

errdesc_t* cfg_print(std::FILE* stream, const vmcfg_t* vmcfg) {
    cor_assert(stream != nullptr);
    RETURN_IF_ERROR(cfg_parse_verify(vmcfg));
    std::fprintf(stream, "version = \"%d\"\n", static_cast<int>(vmcfg->version));
    print_text(stream, "vmname", vmcfg->vmname);
    if (vmcfg->vmuuid)
        std::fprintf(stream, "vmuuid = \"%s\"\n", vmcfg->vmuuid->c_str());
    print_text(stream, "servername", vmcfg->servername);
    print_text(stream, "hostsystem", vmcfg->hostsystem);
    print_text(stream, "resourcepool", vmcfg->resourcepool);
    print_text(stream, "directory", vmcfg->directory);
    print_text(stream, "dsname", vmcfg->dsname);
    print_text(stream, "vmx-name", vmcfg->vmxname);
    std::fprintf(stream, "on-conflict = \"%s\"\n", cfg_conflict_type_to_string(vmcfg->on_conflict));
    print_text(stream, "vmx-rename", vmcfg->vmxrename);
    for (std::size_t i = 0; i < vmcfg->vdsk.size(); i++) {
        if (vmcfg->vdsk[i] != nullptr)
            print_disk(stream, static_cast<int>(i), *vmcfg->vdsk[i]);
    }
    char time_line[time_room] = {};
    cfg_print_timestamps(vmcfg->access_time, time_line, static_cast<int>(sizeof time_line));
    std::fputs(time_line, stream);
    return nullptr;
}

void cfg_parse_dump(const vmcfg_t* vmcfg, std::FILE* stream) {
    if (errdesc_t* e = cfg_print(stream, vmcfg))
        _errdesc_log(e, ERRDESC_WARNING);
    std::fprintf(stream, "vmcfg->err_string = %s\n", vmcfg->err_string.value_or("(null)").c_str());
    std::fprintf(stream, "vmcfg->line_count = %d\n", vmcfg->line_count);
}

const char* cfg_vdsk_type_to_string(vmcfg_vd_type_t type) {
    switch (type) {
        case VDSK_THICK:
            return "thick";
        case VDSK_THIN:
            return "thin";
        case VDSK_UNKNOWN:
            break;
    }
    return "unknown";
}

const char* cfg_conflict_type_to_string(vmcfg_conflict_type_t type) {
    switch (type) {
        case VMCFG_CONFLICT_STOP:
            return "stop";
        case VMCFG_CONFLICT_RENAME:
            return "rename";
        case VMCFG_CONFLICT_OVERWRITE:
            return "overwrite";
        case VMCFG_CONFLICT_SNAPSHOT:
            return "snapshot";
    }
    return "unknown";
}

std::string cfg_escape_string(std::string_view src, std::size_t dst_size) {
    std::string escaped;
    for (const char c : src) {
        const bool is_escaped = c == '\\' || c == '"';
        if (escaped.size() + (is_escaped ? 2 : 1) + 2 >= dst_size) {
            _errdesc_log(errdesc_set_fmt(ENAMETOOLONG, "'%s' to big for the %d bytes buffer", std::string(src).c_str(),
                                         static_cast<int>(dst_size)),
                         ERRDESC_WARNING);
            break;
        }
        if (is_escaped)
            escaped.push_back('\\');
        escaped.push_back(c);
    }
    return escaped;
}

int cfg_print_timestamps(std::time_t access_time, char* buf, int buf_size) {
    if (access_time == 0)
        return 0;
    const int offset = std::snprintf(buf, static_cast<std::size_t>(buf_size), "access-time = %jd\n",
                                     static_cast<std::intmax_t>(access_time));
    cor_assert_text(offset >= 0 && offset < buf_size - 1, "offset < buf_size - 1");
    return offset;
}

}  // namespace mirador
