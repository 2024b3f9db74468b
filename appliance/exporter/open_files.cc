// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/open_files.h"

#include <string>
#include <utility>

#include "appliance/exporter/vm_proxy_api.h"

namespace mirador {

std::uint64_t open_files_t::add(std::unique_ptr<fuse_fh_t> fh) {
    const std::uint64_t number = reinterpret_cast<std::uintptr_t>(fh.get());
    const mutex_lock_t lock(mutex_);
    files_.emplace(number, std::move(fh));
    return number;
}

std::unique_ptr<fuse_fh_t> open_files_t::take(std::uint64_t number) {
    const mutex_lock_t lock(mutex_);
    auto file = files_.extract(number);
    return file.empty() ? nullptr : std::move(file.mapped());
}

void open_files_t::release_all() {
    std::unordered_map<std::uint64_t, std::unique_ptr<fuse_fh_t>> left;
    {
        const mutex_lock_t lock(mutex_);
        left.swap(files_);
    }
    for (auto& [number, fh] : left) {
        const std::string path = fh->path;
        if (errdesc_t* e = vm_proxy_release(path, std::move(fh)))
            _errdesc_log(e, ERRDESC_ERROR);
    }
}

const fuse_fh_t* open_files_t::get(std::uint64_t number) {
    return reinterpret_cast<const fuse_fh_t*>(number);
}

}  // namespace mirador
