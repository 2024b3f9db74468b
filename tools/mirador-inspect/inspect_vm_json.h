// SPDX-License-Identifier: Apache-2.0
// A VM's files as JSON. Texts are UTF-8 whatever the file is in, without its escapes; paths below a mount root of a
// datastore are the hypervisor's ("/vmfs/volumes/…").
#pragma once

#include <string>

#include "lib/errdesc.h"
#include "tools/mirador-inspect/inspect_json.h"
#include "vmware/lib/vmsd/vmsd.h"
#include "vmware/lib/vmx/vmx.h"

namespace mirador {

// Every field, the attached disks as "disks", all devices as "devices".
json_ptr vmx_json(const vmxdesc_t& vmx);

// Where a device is attached, and what its settings say.
json_ptr vmx_device_json(const vmx_address_t& address, const vmx_device_t& device);

// Every field; of the snapshots those that the file names, each with its number.
json_ptr vmsd_json(const vmsddesc_t& vmsd);

// {"number", "string"}; null for no error.
json_ptr error_json(const errdesc_t* e);

// A path as the hypervisor names it.
json_ptr path_json(const std::string& path);

// What lies behind an attached disk: size, chain from head to base, each with its extents, and the file that tracks
// changed blocks. A member "err" tells why it could not be read.
void add_chain_json(const vmxdesc_t& vmx, const vmx_device_t& device, const json_ptr& json);

}  // namespace mirador
