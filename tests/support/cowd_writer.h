// SPDX-License-Identifier: Apache-2.0
// Writes delta disks of the copy-on-write kind (VMFSSPARSE), which no tool at hand can make: an extent file of grains
// and its descriptor. Grains may come in any order; each table is placed in front of its first grain, as a hypervisor
// does that writes a delta while the machine runs.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "lib/errdesc.h"
#include "lib/file_io.h"

namespace mirador {

class cowd_writer_t {
  public:
    // `capacity` and `grainsize` are in sectors, neither 0.
    cowd_writer_t(std::uint32_t capacity, std::uint32_t grainsize);

    // Makes the extent file. Errors: errno with the path.
    [[nodiscard]] errdesc_t* create(const std::string& path);
    // Stores one grain, not stored yet; `data` is at most a grain long and the rest is zeros.
    [[nodiscard]] errdesc_t* add_grain(std::uint32_t grain, std::span<const char> data);
    // Writes header, directory and tables.
    [[nodiscard]] errdesc_t* finish();

    std::size_t grain_bytes() const;

  private:
    [[nodiscard]] errdesc_t* write(const void* data, std::size_t size, std::uint64_t sector);

    std::uint32_t capacity_;
    std::uint32_t grainsize_;
    std::vector<std::uint32_t> directory_;            // sector of each table
    std::vector<std::vector<std::uint32_t>> tables_;  // sectors of the grains
    std::uint32_t free_sector_;
    unique_fd fd_;
};

struct cowd_descriptor_t {
    std::uint32_t capacity = 0;  // sectors
    std::uint32_t cid = 0xfffffffe;
    std::uint32_t parent_cid = 0;
    std::string parent_hint;
    std::string extent_name;
};
[[nodiscard]] errdesc_t* write_cowd_descriptor(const std::string& path, const cowd_descriptor_t& descriptor);

// Writes the delta that turns the raw image `base` into the raw image `image` of the same size: the descriptor
// `delta_path` ("x.vmdk") and its extent ("x-delta.vmdk"). `descriptor` gives ids and parent.
[[nodiscard]] errdesc_t* write_cowd_delta(const std::string& base, const std::string& image,
                                          const std::string& delta_path, std::uint32_t grainsize,
                                          cowd_descriptor_t descriptor);

}  // namespace mirador
