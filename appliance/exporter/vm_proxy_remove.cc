// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/vm_proxy_remove.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <system_error>

#include "appliance/exporter/controller_thr.h"
#include "appliance/lib/vm_proxy_header.h"
#include "lib/file_tree.h"

namespace mirador {
namespace {

// The blocks that a header describes; 0 for a file that is none.
std::int64_t blocks_of(const std::string& shadow_path) {
    std::unique_ptr<vm_proxy_header_t> header;
    if (vm_proxy_read_header_checked(shadow_path, &header) != nullptr)
        return 0;
    return static_cast<std::int64_t>(header->statb.blocks);
}

std::int64_t blocks_below(const std::string& shadow_dir) {
    std::int64_t blocks = 0;
    std::error_code failure;
    using std::filesystem::recursive_directory_iterator;
    for (auto at = recursive_directory_iterator(shadow_dir, failure); !failure && at != recursive_directory_iterator();
         at.increment(failure))
        if (at->is_regular_file(failure) && !at->is_symlink(failure))
            blocks += blocks_of(at->path());
    return blocks;
}

}  // namespace

errdesc_t* vm_proxy_remove(const std::string& shadow_path) {
    const std::int64_t blocks = blocks_of(shadow_path);
    if (unlink(shadow_path.c_str()) != 0)
        return errno == ENOENT ? nullptr : errdesc_set_str(errno, shadow_path);
    dec_fs_blocks_used(blocks);
    return nullptr;
}

errdesc_t* vm_proxy_remove_tree(const std::string& shadow_dir) {
    const std::int64_t before = blocks_below(shadow_dir);
    errdesc_t* e = rmdirr(shadow_dir);
    dec_fs_blocks_used(before - blocks_below(shadow_dir));
    return e;
}

}  // namespace mirador
