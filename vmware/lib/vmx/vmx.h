// SPDX-License-Identifier: Apache-2.0
// A VM's configuration file (".vmx", ".vmtx" for a template): what the rest of the system asks of it.
//
// The file is lines of `key = "value"`. What hosts and people write is read: LF and CRLF, keys in any letter case,
// comments, values without quotes, any of the encodings in vmx_encoding.h, a missing last line end, zero bytes behind
// the text. A key that stands twice has its last value, as the hypervisor takes it. A line that is no setting is passed
// over and counted. Nothing in a file is asserted on.
//
// Pure functions over their arguments: any thread may call them at any time.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "lib/errdesc.h"
#include "lib/text_file.h"

namespace mirador {

inline constexpr std::size_t vmx_max_text = std::size_t{4} << 20;  // bytes of a file
inline constexpr std::size_t vmx_max_value = 4095;                 // bytes of a value that is kept
inline constexpr unsigned vmx_max_controllers = 16;                // of each bus
inline constexpr unsigned vmx_max_units = 64;                      // of a controller

// The numbers order the disks that share a controller's and a unit's number.
enum vmx_bus_t : std::uint8_t { VMX_SCSI = 0, VMX_IDE = 1, VMX_SATA = 2, VMX_NVME = 3 };

// "scsi", "ide", "sata", "nvme".
const char* vmx_bus_name(vmx_bus_t bus);

// Where a device is attached: key "<bus><controller>:<unit>".
struct vmx_address_t {
    unsigned controller = 0;
    unsigned unit = 0;
    vmx_bus_t bus = VMX_SCSI;
    auto operator<=>(const vmx_address_t&) const = default;  // NOLINT(modernize-use-nullptr)
};

// "scsi0:1".
std::string vmx_address_str(const vmx_address_t& address);

// A device on a bus: a disk, a CD-ROM, a passed-through device. Texts are empty where the file has none.
struct vmx_device_t {
    bool present = false;
    bool ctk_enabled = false;  // changed-block tracking of this disk
    std::string filename;      // absolute, or relative to the working directory or the file's own directory
    std::string mode;          // "persistent", "independent-persistent", …
    std::string device_type;   // "scsi-hardDisk", "cdrom-image", …
};

// Texts are UTF-8, or the bytes of the file where they cannot be converted; empty where the file has none.
struct vmxdesc_t {
    static constexpr std::uint32_t magic_value = 0x766d7864;  // set while the description is open

    std::uint32_t magic = 0;
    std::string filename;         // the path that was opened
    std::string dirname;          // its directory; "." for a path without one
    std::string encoding;         // as declared
    bool encoding_known = false;  // declared, and one that is converted
    std::string uuid_bios;
    std::string uuid_location;
    std::string vc_uuid;
    std::string displayname;
    std::string guestos;
    std::string workingdir;    // as written; "." and relative paths start at dirname
    bool is_template = false;  // by the file's suffix or by its setting
    bool ctk_enabled = false;  // changed-block tracking of the VM
    std::map<vmx_address_t, vmx_device_t> devices;
    std::map<std::pair<vmx_bus_t, unsigned>, bool> controllers;  // those with a "present" setting
    unsigned lost_lines = 0;                                     // lines that are no setting
};

// Empties *vmxdesc and fills it from the file `path`. Errors: errno with the path; EINVAL "VMX file refused, <fault>:
// <path>" for what is no regular file, is longer than vmx_max_text, has no setting at all or a value to be kept that is
// longer than vmx_max_value. After an error the description is closed. Asserted: vmxdesc is not null.
[[nodiscard]] errdesc_t* vmx_open(const std::string& path, vmxdesc_t* vmxdesc);

// The same from the bytes of a file, already read; `path` is what the description is called.
[[nodiscard]] errdesc_t* vmx_parse_text(const std::string& path, const std::string& text, vmxdesc_t* vmxdesc);

// Frees what the description holds and leaves it as new. Closing one that is not open is allowed.
void vmx_close(vmxdesc_t* vmxdesc);

// Whether a device is a virtual disk with a file, by its type: CD-ROMs, floppies and passed-through devices are none. A
// device without a type, or of one that is not known, is a disk when its file is called so (".vmdk").
bool vmx_is_disk(const vmx_device_t& device);

// The disks that the VM has: present, on a controller that is not switched off, with a file name. Ordered by
// controller, unit and bus; the pointers live as long as the description is open and unchanged.
std::vector<std::pair<vmx_address_t, const vmx_device_t*>> vmx_disks(const vmxdesc_t& vmxdesc);

// The directory that new snapshots go to: workingdir made absolute with dirname, dirname itself where there is none.
std::string vmx_working_dir(const vmxdesc_t& vmxdesc);

// Prints the description for a person: a line for each text and each device.
void vmx_dump(const vmxdesc_t& vmxdesc, std::FILE* stream);

// Reads the file as bytes, with the errors of vmx_open and of `check`.
[[nodiscard]] errdesc_t* vmx_read_text(const std::string& path, std::string* text,
                                       const opened_file_check_t& check = nullptr);

// The device that a key belongs to ("SCSI0:1.fileName") and the rest of the key behind the full stop, in lower case.
// False for any other key, and for numbers beyond vmx_max_controllers and vmx_max_units.
[[nodiscard]] bool vmx_split_device_key(std::string_view key, vmx_address_t* address, std::string* property);

}  // namespace mirador
