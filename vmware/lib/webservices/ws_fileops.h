// SPDX-License-Identifier: Apache-2.0
// The agent's file methods: files on a hypervisor's datastores are listed, made, copied, moved and removed, each in one
// call in a session of its own (vmware/lib/webservices/ws_session.h, which tells the errors; those of the agent come as
// it raised them). The datastores themselves: ws_df in vmware/lib/webservices/ws_datastore.h.
//
// Paths are the hypervisor's, "[datastore] folder/file"; a datacenter is named beside each.
#pragma once

#include <json-c/json_object.h>
#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "controller/lib/kestrel_types.h"
#include "lib/errdesc.h"
#include "lib/jdr.h"

namespace mirador {

enum fdesc_type_t {
    FDESC_UNKNOWN = 0,
    FDESC_IGNORE = 1,
    FDESC_LOGFILE = 2,
    FDESC_VMXFILE = 3,
    FDESC_CONFIGFILE = 4,
    FDESC_DISKDESCRIPTORFILE = 5,
    FDESC_DISKEXTENTFILE = 6,
    FDESC_SNAPSHOTDATAFILE = 7,
    FDESC_SNAPSHOTLISTFILE = 8,
    FDESC_SWAPFILE = 9,
    FDESC_VMSSFILE = 10,
    FDESC_NVRAMFILE = 11,
    FDESC_DIRECTORY = 12,
    // Agents do not tell these.
    FDESC_HEADER_METADATA = 13,
    FDESC_CACHED_METADATA = 14,
};

inline constexpr std::uint32_t fdesc_magic = 0x20100120;
inline constexpr std::uint32_t fdesc_version = 2;

// One file on a datastore. Its texts are the agent's: of any length and with any character but zero. Copies are copies
// of everything and free themselves.
struct esx_file_desc_t {
    std::uint32_t magic = 0;              // fdesc_magic once it is decoded
    std::uint32_t version = 0;            // fdesc_version once it is decoded
    std::string dc_name;                  // datacenter
    std::string ds_name;                  // datastore
    std::optional<std::string> vm_moref;  // the hypervisor's reference of the VM that owns the file
    std::string file_folder;              // on the datastore
    std::string file_name;
    fdesc_type_t file_type = FDESC_UNKNOWN;
    std::string file_type_str;   // the agent's name of the type
    std::time_t file_mtime = 0;  // seconds since the epoch, of 32 bits
    off_t file_bytes = 0;
};

// The type of that name, in upper or lower case; FDESC_UNKNOWN for any other.
fdesc_type_t fdesc_get_type(const std::string& name);

// The marshaller of a file (lib/jdr.h). Decoding asks for every member but "vm_moref"; it sets type, magic and version.
ssize_t jdr_fdesc(jdr_op_t op, json_object** obj, const char* key, esx_file_desc_t* fd);

// Makes *dst a copy; drops a file's texts and clears it.
void fdesc_copy(const esx_file_desc_t* src, esx_file_desc_t* dst);
void fdesc_free(esx_file_desc_t* fd);

// Logs a file on one line that begins with the tag.
void fdesc_dump(const std::string& tag, const esx_file_desc_t& fd);

// Makes a directory; with `create_parent`, those above it too.
[[nodiscard]] errdesc_t* ws_mkdir(const ks_hypervisor_config_t& hvc, const std::string& datacenter,
                                  const std::string& path, bool create_parent);

// Removes a file, or what else the agent removes.
[[nodiscard]] errdesc_t* ws_unlink(const ks_hypervisor_config_t& hvc, const std::string& datacenter,
                                   const std::string& path);

// Copy and move; what is there is replaced with `overwrite` only.
[[nodiscard]] errdesc_t* ws_cp(const ks_hypervisor_config_t& hvc, const std::string& src_datacenter,
                               const std::string& src_path, const std::string& dest_datacenter,
                               const std::string& dest_path, bool overwrite);
[[nodiscard]] errdesc_t* ws_mv(const ks_hypervisor_config_t& hvc, const std::string& src_datacenter,
                               const std::string& src_path, const std::string& dest_datacenter,
                               const std::string& dest_path, bool overwrite);

// The file of that path. Further error: ENOENT when the reply has none; *entry is what it was after any error.
[[nodiscard]] errdesc_t* ws_stat(const ks_hypervisor_config_t& hvc, const std::string& datacenter,
                                 const std::string& path, esx_file_desc_t* entry);

// Appends the files of a directory to *file_list; null: the reply is only checked. Further error: ENOENT for a reply
// without an array, or with an element that is no file. After any error the list is empty.
[[nodiscard]] errdesc_t* ws_ls(const ks_hypervisor_config_t& hvc, const std::string& datacenter,
                               const std::string& path, std::vector<esx_file_desc_t>* file_list);

}  // namespace mirador
