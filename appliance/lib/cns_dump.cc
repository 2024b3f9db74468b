// SPDX-License-Identifier: Apache-2.0
// What the namespace prints for a person diagnosing.
#include <sys/stat.h>

#include <cstdio>

#include "appliance/lib/cor_namespace.h"
#include "lib/log.h"

namespace mirador {
namespace {

constexpr mode_t permission_mask = 0xFFF;
constexpr mode_t usual_permissions = 0777;

const char* type_name(mode_t mode) {
    if (S_ISDIR(mode))
        return "DIR";
    return S_ISREG(mode) ? "REG" : "UNEXPECTED";
}

}  // namespace

void cns_check_statb(const std::string& path, const char* caller, const struct stat& st, bool force) {
    const mode_t type = st.st_mode & S_IFMT;
    const mode_t permissions = st.st_mode & permission_mask;
    if (!force && (S_ISDIR(type) || S_ISREG(type)) && permissions == usual_permissions)
        return;
    ts_printf("%s: %s: mode <%o (%s), %04o> , size %jd\n", caller, path.c_str(), type, type_name(type), permissions,
              static_cast<std::intmax_t>(st.st_size));
}

void cns_attrs_dump(const cns_attrs_t* attrs, std::FILE* stream) {
    if (attrs == nullptr) {
        std::fprintf(stream, "%s: cns_attrs = NULL\n", __func__);
        return;
    }
    const struct stat st = cor_statb_to_stat(attrs->statb);
    std::fprintf(stream, "%s: Begin dump %p\n", __func__, static_cast<const void*>(attrs));
    std::fprintf(stream, "    magic            = 0x%x\n", attrs->magic);
    std::fprintf(stream, "    version          = 0x%x\n", attrs->version);
    std::fprintf(stream, "    app_hdr_type     = 0x%x\n", attrs->app_hdr_type);
    std::fprintf(stream, "    app_hdr_size     = %u\n", attrs->app_hdr_size);
    std::fprintf(stream, "    owner            = %ju\n", std::uintmax_t{attrs->owner});
    std::fprintf(stream, "    generation       = %ju\n", std::uintmax_t{attrs->generation});
    std::fprintf(stream, "    statb.st_dev     = 0x%jx\n", std::uintmax_t{st.st_dev});
    std::fprintf(stream, "    statb.st_ino     = 0x%jx\n", std::uintmax_t{st.st_ino});
    std::fprintf(stream, "    statb.st_mode    = 0x%x\n", st.st_mode);
    std::fprintf(stream, "    statb.st_nlink   = %zu\n", std::size_t{st.st_nlink});
    std::fprintf(stream, "    statb.st_uid     = %u\n", st.st_uid);
    std::fprintf(stream, "    statb.st_gid     = %u\n", st.st_gid);
    std::fprintf(stream, "    statb.st_rdev    = 0x%jx\n", std::uintmax_t{st.st_rdev});
    std::fprintf(stream, "    statb.st_size    = %ju\n", static_cast<std::uintmax_t>(st.st_size));
    std::fprintf(stream, "    statb.st_blksize = %lu\n", static_cast<unsigned long>(st.st_blksize));
    std::fprintf(stream, "    statb.st_blocks  = %ju\n", static_cast<std::uintmax_t>(st.st_blocks));
    std::fprintf(stream, "    statb.st_atime   = %lu\n", static_cast<unsigned long>(st.st_atim.tv_sec));
    std::fprintf(stream, "    statb.st_mtime   = %lu\n", static_cast<unsigned long>(st.st_mtim.tv_sec));
    std::fprintf(stream, "    statb.st_ctime   = %lu\n", static_cast<unsigned long>(st.st_ctim.tv_sec));
    std::fprintf(stream, "%s: End dump\n", __func__);
}

}  // namespace mirador
