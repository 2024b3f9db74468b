// SPDX-License-Identifier: Apache-2.0
// The opens of the single kinds of exported files. Each is called with the cookie locked and ends with a descriptor to
// read from and, where the kind has one, an overlay in the cookie. One that fails may leave half of what it made: the
// caller evicts the cookie.
#pragma once

#include "appliance/exporter/vm_proxy_table.h"
#include "lib/errdesc.h"
#include "lib/file_io.h"

namespace mirador {

// A disk: on the first open of the cookie a snapshot of the VM, the mapping of the disk's chain, its partitions, and
// the virtual disk header as overlay over a free sector; later opens reuse all of it. A tracked disk's change id stands
// in the header. With `is_second_stream` the disk is opened for a changed-block file, which is no full copy: what
// changes from now on must not be counted from there. Errors: the snapshot's, the chain's (24 with the retry limit in
// its text when too many extent files stay open after giving up other disks of the hypervisor), get_cbt_changeid's, the
// device's.
[[nodiscard]] errdesc_t* vm_proxy_open_vmdk_flat(vm_proxy_cookie_t& cookie, bool is_second_stream, unique_fd* fd)
    REQUIRES(cookie.mutex);

// A descriptor or VMX file: the real file on its datastore. Errors: what the datastore side publishes, else errno with
// the path; EINVAL when a name on a datastore leads to no file of one.
[[nodiscard]] errdesc_t* vm_proxy_open_real_file(vm_proxy_cookie_t& cookie, unique_fd* fd) REQUIRES(cookie.mutex);

// A configuration file: the real file, followed by `cfg_trailer_size` bytes that tell the time of the open.
[[nodiscard]] errdesc_t* vm_proxy_open_cfg_file(vm_proxy_cookie_t& cookie, unique_fd* fd) REQUIRES(cookie.mutex);

// Bytes that an exported configuration file is longer than the real one.
inline constexpr std::size_t cfg_trailer_size = 200;

}  // namespace mirador
