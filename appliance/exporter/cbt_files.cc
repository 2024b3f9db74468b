// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/cbt_files.h"

#include <fcntl.h>

#include <cerrno>

#include "appliance/exporter/cbt_script.h"
#include "appliance/lib/corcbt.h"
#include "appliance/lib/corcbt_table.h"
#include "appliance/lib/loopdev.h"
#include "lib/cor_assert.h"
#include "lib/tool_paths.h"

namespace mirador {

cbt_work_file_t::cbt_work_file_t(const std::string& dm_name, const std::string& suffix)
    : path_(make_cbt_path(tool_paths().tmp_dir, dm_name, suffix)) {}

cbt_work_file_t::~cbt_work_file_t() {
    if (fd_)
        cbt_remove_work_file(path_);
}

errdesc_t* cbt_work_file_t::write(std::string_view bytes, std::int64_t offset) {
    constexpr mode_t owner_only = 0600;
    fd_.reset(open(path_.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, owner_only));
    if (!fd_)
        return errdesc_set_str(errno, path_);
    std::size_t done = 0;
    errdesc_t* e = cor_pwrite(fd_.get(), bytes.data(), bytes.size(), offset, &done);
    return e == nullptr ? nullptr : errdesc_set_str(e->number, path_);
}

errdesc_t* cbt_work_file_t::bind(std::string* loopdev) const {
    return vdsk_assign_next_loop_dev_fd(fd_.get(), path_, true, loopdev_timeout, loopdev);
}

errdesc_t* make_cbt_header_dev(const std::string& bytes, const std::string& dm_name, std::string* hdr_loop_dev) {
    cor_assert(bytes.size() % cbt_sector_size == 0);
    cbt_work_file_t file(dm_name, "header");
    RETURN_IF_ERROR(file.write(bytes, 0));
    return file.bind(hdr_loop_dev);
}

errdesc_t* make_cbt_zero_dev(std::int64_t sectors, const std::string& dm_name, std::string* zero_loop_dev) {
    cor_assert(sectors >= 1);
    cbt_work_file_t file(dm_name, "zero");
    RETURN_IF_ERROR(file.write(std::string_view("", 1), sectors * cbt_sector_size - 1));
    return file.bind(zero_loop_dev);
}

}  // namespace mirador
