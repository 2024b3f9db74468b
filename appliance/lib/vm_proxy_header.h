// SPDX-License-Identifier: Apache-2.0
// The proxy header: the 960-byte, little-endian content of every file in the shadow tree. It tells what an exported
// name stands for, where its real data lies, and which attributes the export reports for it.
//
// A file is read and written as a whole record. Writers put it aside and rename it into place, so a reader meets the
// old record or the new one, never a mixture. The functions hold no state; two threads must not write the same shadow
// file at once, since both would use the same temporary name.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "appliance/lib/statb_format.h"
#include "lib/errdesc.h"

namespace mirador {

enum vm_proxy_header_type_t : std::uint32_t {
    VM_PROXY_HEADER_UNKNOWN = 0,
    VM_PROXY_HEADER_VMDK_FLAT = 1,    // a disk's data, put together from its chain
    VM_PROXY_HEADER_VMDK_ASCII = 2,   // a disk's descriptor
    VM_PROXY_HEADER_VMX = 3,          // a VM's configuration
    VM_PROXY_HEADER_VMDK_CORCBT = 4,  // a disk's changed blocks
    VM_PROXY_HEADER_CFG = 5,          // the description of an exported VM
};

#pragma pack(push, 1)

struct vm_proxy_header_t {
    static constexpr std::uint32_t magic_value = 0xffffffff;
    static constexpr std::uint32_t version_value = 1;

    std::uint32_t magic;
    std::uint32_t version;
    vm_proxy_header_type_t type;
    cor_statb_t statb;           // what the exported file reports
    std::uint32_t can_optimize;  // 0 or 1: reads may go through the optimised device path
    std::uint32_t can_snapshot;  // 0 or 1: opening may take a snapshot of the VM
    char path[513];              // the real object on its datastore; this and the following texts are terminated
    char vm_uuid[64];
    char hv_name[257];  // the hypervisor's name
    char pad[2];
    std::uint64_t crc;  // always 0
};
static_assert(sizeof(vm_proxy_header_t) == 960);
static_assert(offsetof(vm_proxy_header_t, magic) == 0 && offsetof(vm_proxy_header_t, version) == 4);
static_assert(offsetof(vm_proxy_header_t, type) == 8 && offsetof(vm_proxy_header_t, statb) == 12);
static_assert(offsetof(vm_proxy_header_t, can_optimize) == 108 && offsetof(vm_proxy_header_t, can_snapshot) == 112);
static_assert(offsetof(vm_proxy_header_t, path) == 116 && offsetof(vm_proxy_header_t, vm_uuid) == 629);
static_assert(offsetof(vm_proxy_header_t, hv_name) == 693 && offsetof(vm_proxy_header_t, pad) == 950);
static_assert(offsetof(vm_proxy_header_t, crc) == 952);

#pragma pack(pop)

// "VMDK_FLAT" and so on; "OUT OF RANGE!" for a value that is no type.
const char* vm_proxy_header_type_str(vm_proxy_header_type_t type);

// The block count that belongs to a size in bytes, which is not negative: whole 512-byte blocks, rounded up.
std::uint64_t proxy_header_blocks(std::int64_t size);

// A zeroed header of this type, magic and version set.
vm_proxy_header_t vm_proxy_header_make(vm_proxy_header_type_t type);

// Reads a shadow file. *out must be null on entry (asserted) and stays null on error. A wrong magic or version is a
// fatal assertion: this is for files that are known to be this program's own work. Errors: errno of the open with the
// path; the number of a failed read with "vm_read_proxy_header(<path>): read error <text>" (the failure itself is
// logged before); ENOKEY (126) with "vm_read_proxy_header(<path>): short read <bytes>".
[[nodiscard]] errdesc_t* vm_proxy_read_header(const std::string& shadow_path, std::unique_ptr<vm_proxy_header_t>* out);

// As vm_proxy_read_header, for files that anybody may have written: what vm_proxy_header_check turns down is its error
// instead of an assertion. The file is read once, so what was checked is what is returned.
[[nodiscard]] errdesc_t* vm_proxy_read_header_checked(const std::string& shadow_path,
                                                      std::unique_ptr<vm_proxy_header_t>* out);

// Whether 960 bytes are a header that the program may act on. EINVAL with "Proxy header refused, <fault>: <path>":
// wrong magic or version, a type that is unknown or out of range, a text without terminator, a negative size, more
// blocks than the size fills.
[[nodiscard]] errdesc_t* vm_proxy_header_check(const vm_proxy_header_t& header, const std::string& path);

// Writes "<shadow_path>.tmp" (mode 0600) and renames it over the shadow file; the temporary file is gone on every path
// out. Errors: errno of the open or of the write with the temporary name, EIO for a short write, errno of the rename
// with "rename <temporary> to <shadow_path> failed".
[[nodiscard]] errdesc_t* vm_proxy_write_header(const vm_proxy_header_t& header, const std::string& shadow_path);

// Prints the label and a header's fields, one a line; times as local calendar text. Any bytes may be printed: texts end
// with their field.
void vm_proxy_header_dump(const char* label, const vm_proxy_header_t& header, std::FILE* stream = stderr);

}  // namespace mirador
