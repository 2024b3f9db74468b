// SPDX-License-Identifier: Apache-2.0
// Host discovery: what a VM is, learnt from its configuration file on a mounted datastore instead of from the
// controller; and all VMs below some directories.
//
// Records belong to their holder. Any thread may fill one; vhost_auto_discover may be called by one thread at a time.
#pragma once

#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lib/errdesc.h"
#include "lib/list.h"

namespace mirador {

enum vhost_type_t : std::uint32_t { VHOST_UNKNOWN = 0, VHOST_VMWARE = 1, VHOST_HYPERV = 2, VHOST_XEN = 3 };

struct vdisk_record_t {
    std::string name;  // the disk's file, as the configuration names it
    bool snapshot_ok = false;
};

// One discovered VM. Texts that the configuration does not have are empty.
struct vhost_record_t {
    static constexpr std::uint32_t magic_value = 0xaaffddcc;
    static constexpr std::uint32_t version_value = 1;
    static constexpr std::size_t max_vdsks = 32;

    std::uint32_t version = 0;
    std::uint32_t magic = 0;
    vhost_type_t type = VHOST_UNKNOWN;
    std::string uuid;   // the VM's own, normalised
    std::string uuid2;  // of its place, as written
    std::string uuid3;  // the management server's, normalised
    std::string name;
    std::string os;
    std::string filename;  // of the configuration file
    std::string dirname;   // its directory
    std::optional<std::string> workingdir;
    int vdskcount = 0;
    std::array<vdisk_record_t, max_vdsks> vdsk;  // the first vdskcount, ordered by where they are attached
    std::unique_ptr<const errdesc_t> err;        // why the record is incomplete
    struct stat stat {};                         // of the configuration file
};

using vhost_list_t = list_t<std::unique_ptr<vhost_record_t>>;

// By its name: VHOST_VMWARE for more than 4 characters that end in ".vmx", else VHOST_UNKNOWN.
vhost_type_t vhost_get_type(const std::string& path);

// Makes a record from a configuration file (of a known type, asserted) and checks it. There is a record in every case;
// an error is returned and a copy of it kept in the record. *record must be null (asserted). Errors: those of
// vmware_get_vhost_record and vhost_record_validate.
[[nodiscard]] errdesc_t* vhost_record_new(const std::string& vhost_path, std::unique_ptr<vhost_record_t>* record);

// The same for a file of any name, a template's say.
[[nodiscard]] errdesc_t* vhost_record_new_any(const std::string& vhost_path, std::unique_ptr<vhost_record_t>* record);

// The same for somebody who will ask again: a file that cannot be read is not waited for.
[[nodiscard]] errdesc_t* vhost_record_new_at_once(const std::string& vhost_path,
                                                  std::unique_ptr<vhost_record_t>* record);

// Errors: EINVAL with "invalid uuid for %s", "invalid name for %s", "invalid operating system for %s", "invalid
// directory for %s", "no virtual disks for %s" or "invalid virtual disk %d for %s" (a disk without a name, from 0).
[[nodiscard]] errdesc_t* vhost_record_validate(const std::string& path, const vhost_record_t& record);

// Leaves the record as new, without magic.
void vhost_record_free(vhost_record_t* record);

void vhost_record_dump(const vhost_record_t& record, std::FILE* stream);

// Appends a record to the list for each VM whose configuration file lies below one of the paths, walker_max_threads at
// most (asserted). A file that cannot be read or is incomplete is logged at level 4 and has a record with `err`. Error:
// that of walker_start; the list is then empty.
[[nodiscard]] errdesc_t* vhost_auto_discover(const std::vector<std::string>& paths, vhost_list_t* vhost_list);

// The same for the files that `accept` chooses by their path.
[[nodiscard]] errdesc_t* vhost_auto_discover_if(const std::vector<std::string>& paths,
                                                const std::function<bool(const std::string& path)>& accept,
                                                vhost_list_t* vhost_list);

}  // namespace mirador
