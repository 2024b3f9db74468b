// SPDX-License-Identifier: Apache-2.0
// Writing proxy headers: how every exported file comes into the shadow tree and is refreshed there. Keeps the count of
// blocks of controller_thr.h. One thread at a time may write one shadow file.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

#include "appliance/lib/vm_proxy_header.h"
#include "lib/errdesc.h"

namespace mirador {

struct vm_proxy_touch_t {
    std::string link_path;  // the real object, at most 512 characters
    std::string stat_path;  // whose attributes the export reports
    std::string vm_uuid;    // at most 63 characters
    std::string hv_name;    // at most 256 characters
    vm_proxy_header_type_t type = VM_PROXY_HEADER_UNKNOWN;
    std::int64_t size = 0;     // bytes; of a flat disk, by its descriptor; of a changed-block export, what it promises
    bool is_template = false;  // a template cannot be snapshotted
    bool is_delta = false;     // stat_path is a delta's, which is as large as what was written since
    bool keep_mtime = false;   // the old header's modification time stays
    std::optional<std::time_t> mtime = {};  // what is reported instead of the file's modification time
};

// Whether the texts fit a header and the type is one: EINVAL with the text that does not.
[[nodiscard]] errdesc_t* vm_proxy_touch_check(const vm_proxy_touch_t& touch);

// Writes the header of `shadow_path`, unless it stands there already. `touch` must pass vm_proxy_touch_check
// (asserted). A flat disk whose extent file, not a delta, is larger than its descriptor says (logged, 27) reports the
// real size and is not read through the optimised path. Errors: what is published for `stat_path`, else errno with it;
// EINVAL when it is no regular file; vm_proxy_write_header's.
[[nodiscard]] errdesc_t* vm_proxy_touch(const std::string& shadow_path, const vm_proxy_touch_t& touch);

}  // namespace mirador
