// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/vm_proxy_remove.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <system_error>
#include <vector>

#include "appliance/exporter/controller_thr.h"
#include "appliance/lib/vm_proxy_header.h"
#include "lib/log.h"

namespace mirador {
namespace {

namespace fs = std::filesystem;

// The blocks that a header describes; 0 for a file that is none.
std::int64_t blocks_of(const std::string& shadow_path) {
    std::unique_ptr<vm_proxy_header_t> header;
    std::error_code failure;
    if (fs::is_symlink(fs::symlink_status(shadow_path, failure)) ||
        vm_proxy_read_header_checked(shadow_path, &header) != nullptr)
        return 0;
    return static_cast<std::int64_t>(header->statb.blocks);
}

// What lies in a directory; nothing when there is none.
errdesc_t* read_dir(const fs::path& dir, std::vector<fs::directory_entry>* entries) {
    std::error_code failure;
    for (auto at = fs::directory_iterator(dir, failure); !failure && at != fs::directory_iterator();
         at.increment(failure))
        entries->push_back(*at);
    return !failure || failure == std::errc::no_such_file_or_directory ? nullptr
                                                                       : errdesc_set_str(failure.value(), dir);
}

}  // namespace

mutex_t& vm_proxy_count_mutex() {
    static mutex_t the_mutex;
    return the_mutex;
}

errdesc_t* vm_proxy_remove(const std::string& shadow_path) {
    const mutex_lock_t lock(vm_proxy_count_mutex());
    const std::int64_t blocks = blocks_of(shadow_path);
    if (unlink(shadow_path.c_str()) != 0)
        return errno == ENOENT ? nullptr : errdesc_set_str(errno, shadow_path);
    dec_fs_blocks_used(blocks);
    return nullptr;
}

errdesc_t* vm_proxy_remove_tree(const std::string& shadow_dir) {
    std::vector<fs::directory_entry> entries;
    RETURN_IF_ERROR(read_dir(shadow_dir, &entries));
    for (const fs::directory_entry& entry : entries) {
        std::error_code failure;
        const fs::file_status status = entry.symlink_status(failure);
        if (!fs::exists(status))  // gone; what an update makes there anew is another's
            continue;
        RETURN_IF_ERROR(fs::is_directory(status) ? vm_proxy_remove_tree(entry.path()) : vm_proxy_remove(entry.path()));
    }
    if (rmdir(shadow_dir.c_str()) != 0 && errno != ENOENT)
        ts_printf("%s stays: %s\n", shadow_dir.c_str(), errnum_text(errno).c_str());
    return nullptr;
}

}  // namespace mirador
