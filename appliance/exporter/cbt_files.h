// SPDX-License-Identifier: Apache-2.0
// The work files of a changed-block export: its head, which a loop device presents, and the padding behind its data.
// They lie in the directory for temporary files, "<device's name>.<suffix>", for their owner only, and their names go
// as soon as the loop device is bound, unless `cbt_debug_enabled` is set.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "lib/errdesc.h"
#include "lib/file_io.h"

namespace mirador {

class cbt_work_file_t {
  public:
    cbt_work_file_t(const std::string& dm_name, const std::string& suffix);
    cbt_work_file_t(const cbt_work_file_t&) = delete;
    cbt_work_file_t& operator=(const cbt_work_file_t&) = delete;
    // Removes the file, if this object made it.
    ~cbt_work_file_t();

    // Makes the file, which must not exist, and writes `bytes` at `offset`; what is before reads as zeros. Errors:
    // errno with the path.
    [[nodiscard]] errdesc_t* write(std::string_view bytes, std::int64_t offset);

    // Binds what was written to a loop device, read-only, waiting 600 seconds for one. The errors of
    // vdsk_assign_next_loop_dev.
    [[nodiscard]] errdesc_t* bind(std::string* loopdev) const;

  private:
    std::string path_;
    unique_fd fd_;
};

// Presents `bytes`, whole sectors, as a loop device.
[[nodiscard]] errdesc_t* make_cbt_header_dev(const std::string& bytes, const std::string& dm_name,
                                             std::string* hdr_loop_dev);

// Presents `sectors` (at least one) sectors of zeros as a loop device.
[[nodiscard]] errdesc_t* make_cbt_zero_dev(std::int64_t sectors, const std::string& dm_name,
                                           std::string* zero_loop_dev);

}  // namespace mirador
