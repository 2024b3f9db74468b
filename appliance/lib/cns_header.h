// SPDX-License-Identifier: Apache-2.0
// What the namespace's sources share: header files, the mutex that makes their changes one at a time, and the count of
// blocks that goes with them. No other module includes this.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "appliance/lib/cor_namespace.h"
#include "lib/thread_annotations.h"

namespace mirador {

// Guards every change of a header file and cns_state_t::fs_blocks_used, of all namespaces.
extern mutex_t _cns_generation_mutex;

inline constexpr std::string_view cns_internal_prefix = ".corvantis";

void _cns_check_handle(const cns_handle_t* ns);

// The place of a path, refused or asserted on as the module's header tells.
[[nodiscard]] errdesc_t* _cns_place(const cns_handle_t* ns, const std::string& path, std::string* place);

// The header file of a directory's place.
std::string _cns_dir_header(const std::string& place);

// Reads a header; *header must be null. `checked`: what cns_check_header turns down is its error; else a wrong magic or
// version is a fatal assertion. A link is no header (ELOOP). Other errors: cns_get_attrs's.
[[nodiscard]] errdesc_t* _cns_read_proxy_header(const std::string& header_path, bool checked,
                                                std::unique_ptr<cns_stub_header_t>* header);

// Writes the header of a node at `header_path`, with the times, generation and count of blocks that follow from the one
// it replaces. Asserted: attrs.app_hdr_size is `app_hdr_size`, which is 0 without `app_hdr`. Errors: cns_create_node's.
[[nodiscard]] errdesc_t* _cns_create_proxy_header(cns_handle_t* ns, const std::string& header_path, cns_attrs_t attrs,
                                                  const void* app_hdr, std::size_t app_hdr_size)
    EXCLUDES(_cns_generation_mutex);

// Unlinks a file and takes its blocks off the count if it is a header. 0 or errno.
[[nodiscard]] int _cns_unlink_header(cns_handle_t* ns, const std::string& header_path) EXCLUDES(_cns_generation_mutex);

// The blocks that the header at `header_path` counts; 0 for none.
std::int64_t _cns_header_blocks(const std::string& header_path);

void _cns_add_blocks(cns_handle_t* ns, std::int64_t blocks) REQUIRES(_cns_generation_mutex);

// The blocks of all headers below the root.
void _cns_init_fs_blocks_used(cns_handle_t* ns) EXCLUDES(_cns_generation_mutex);

}  // namespace mirador
