// SPDX-License-Identifier: Apache-2.0
// The exported description of a VM: a small text file in every exported VM directory that tells name, origin and disks,
// so that the VM can be restored elsewhere. This is its record and how it is written; lib/vmcfgparser reads it.
//
//   version = "3"                      format of the file
//   vmname = "web"
//   vmuuid = "564d7a1b-…"              optional, as are all that cfg_parse_verify does not ask for
//   servername = "esx1"
//   hostsystem = "esx1.example"
//   resourcepool = "Resources"
//   directory = "web"
//   dsname = "datastore1"
//   vmx-name = "web.vmx"
//   on-conflict = "stop"
//   vmx-rename = "web.vmx"
//   vmdk.0.name = "web.vmdk"           disks 0 to 183
//   vmdk.0.extent-name = "web-flat.vmdk"
//   vmdk.0.rename = …, vmdk.0.extent-rename = …, vmdk.0.fpath = …
//   vmdk.0.directory = "web"
//   vmdk.0.dsname = "datastore1"
//   vmdk.0.size = 1073741824           bytes
//   vmdk.0.type = "thin"
//   access-time = 1600000000           seconds since the epoch
//
// A text stands in double quotes, quotes and backslashes in it behind a backslash; it may hold line feeds. The uuid
// alone is written as it is.
//
// No locks: a record belongs to its holder. Asserted everywhere: the record is not null and its magics are right.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "lib/cor_string.h"
#include "lib/errdesc.h"

namespace mirador {

enum vmcfg_conflict_type_t : std::uint32_t {
    VMCFG_CONFLICT_STOP = 0,
    VMCFG_CONFLICT_RENAME = 1,
    VMCFG_CONFLICT_OVERWRITE = 2,
    VMCFG_CONFLICT_SNAPSHOT = 3,
};

enum vmcfg_vd_type_t : std::uint32_t { VDSK_UNKNOWN = 0, VDSK_THICK = 1, VDSK_THIN = 2 };

struct vmcfg_vd_t {
    static constexpr std::uint32_t magic_value = 0xabcdef01;
    static constexpr std::uint32_t version_value = 1;

    std::uint32_t magic = magic_value;
    std::uint32_t version = version_value;
    std::optional<std::string> name;          // of the descriptor file
    std::optional<std::string> rename;        // to use on restore
    std::optional<std::string> extentname;    // of the flat extent file
    std::optional<std::string> extentrename;  // to use on restore
    std::optional<std::string> fpath;         // full path
    std::optional<std::string> directory;
    std::optional<std::string> dsname;
    std::uint64_t size = 0;  // bytes
    vmcfg_vd_type_t type = VDSK_UNKNOWN;

    bool operator==(const vmcfg_vd_t&) const = default;
};

struct vmcfg_t {
    static constexpr std::uint32_t magic_value = 0xabcdef02;
    static constexpr std::uint32_t version_value = 3;  // that is written; 1 to 3 are read
    static constexpr std::size_t max_disks = 184;

    std::uint32_t magic = 0;  // 0: never filled
    std::uint32_t version = 0;
    std::optional<std::string> vmname;
    std::optional<std::string> vmuuid;
    std::optional<std::string> directory;  // on the datastore
    std::optional<std::string> servername;
    std::optional<std::string> hostsystem;
    std::optional<std::string> resourcepool;
    std::optional<std::string> dsname;
    std::optional<std::string> vmxname;
    std::optional<std::string> vmxrename;  // to use on restore
    vmcfg_conflict_type_t on_conflict = VMCFG_CONFLICT_STOP;
    std::uint32_t vdsk_count = 0;                               // slots in use
    std::array<std::unique_ptr<vmcfg_vd_t>, max_disks> vdsk{};  // null: not in use
    int line_count = 0;                                         // lines that the parser saw
    int err_count = 0;                                          // syntax errors that it found
    std::optional<std::string> err_string;                      // text of the first
    std::time_t access_time = 0;                                // seconds; 0: absent
};

// The disk in a slot; an empty one is filled with a new disk. Asserted: `index` is a slot.
vmcfg_vd_t* malloc_vdsk(vmcfg_t* vmcfg, std::size_t index);

// Whether the record tells all that a description must. Errors: EINVAL with "Unsupported version number", "missing
// `…'", "missing `…' for disk %d" or "invalid disk `type' for disk %d: `thin' or `thick'".
[[nodiscard]] errdesc_t* cfg_parse_verify(const vmcfg_t* vmcfg);

// Whether the record is read back as it is when it is printed: EINVAL with "VM configuration refused, <fault>: <key>"
// for a text with a zero byte or too long to be written, a uuid with quotes or backslashes, an unknown conflict type,
// a time before the epoch. For records made of what others sent, before cfg_print.
[[nodiscard]] errdesc_t* cfg_check_record(const vmcfg_t* vmcfg);

// Names to use on restore that are missing become the names themselves.
void cfg_normalize(vmcfg_t* vmcfg);

// Empties a record; one that was never filled is left alone.
void cfg_parse_free(vmcfg_t* vmcfg);

// Writes the file. Errors: cfg_parse_verify's, nothing is written then. The caller looks at the stream's own errors.
[[nodiscard]] errdesc_t* cfg_print(std::FILE* stream, const vmcfg_t* vmcfg);

// Prints the record with cfg_print, and what the parser noted.
void cfg_parse_dump(const vmcfg_t* vmcfg, std::FILE* stream = stderr);

// "thick", "thin"; "stop", "rename", "overwrite", "snapshot"; "unknown" for other values.
const char* cfg_vdsk_type_to_string(vmcfg_vd_type_t type);
const char* cfg_conflict_type_to_string(vmcfg_conflict_type_t type);

// The text with a backslash before every backslash and double quote. What would reach `dst_size` - 2 characters is cut,
// and a warning logged.
std::string cfg_escape_string(std::string_view src, std::size_t dst_size = path_size);

// Writes "access-time = <seconds>\n" into `buf` and returns its length; for access time 0 nothing, and 0. A text that
// does not fit in `buf_size` - 1 characters is a fatal assertion.
int cfg_print_timestamps(std::time_t access_time, char* buf, int buf_size);

}  // namespace mirador
