// SPDX-License-Identifier: Apache-2.0
// A directory of virtual disks made by qemu-img and qemu-io, which also say what each of them holds: the reference that
// mappings are compared with.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/lib/temp_dir.h"

namespace mirador {

class disk_lab_t {
  public:
    explicit disk_lab_t(unsigned seed) : random_(seed) {}

    // Names are file names in the directory.
    std::string path(const std::string& name) const { return dir_ / name; }

    // Runs a shell command in the directory; anything but success fails the test.
    void run(const std::string& command) const;

    // A raw image of random bytes in scattered places, the last sector among them, and zeros elsewhere.
    void make_raw(const std::string& name, std::uint64_t sectors);
    // The raw image `raw` as a disk of the subformat given.
    void make_base(const std::string& name, const std::string& subformat, const std::string& raw) const;
    // A delta disk over `parent`, in which nothing is written yet.
    void make_delta(const std::string& name, const std::string& subformat, const std::string& parent) const;
    // Writes random bytes to `count` random places of a disk or raw image, some of them next to each other, and to its
    // very end.
    void scatter_writes(const std::string& name, std::uint64_t sectors, int count, const std::string& format = "vmdk");
    // The whole contents of a disk as a raw image of the name given.
    void to_raw(const std::string& name, const std::string& raw) const;
    // A disk's content id.
    std::uint32_t content_id(const std::string& name) const;

    // Whether two files of the directory hold the same bytes.
    bool same(const std::string& a, const std::string& b) const;

    std::uint64_t random(std::uint64_t bound) {
        return std::uniform_int_distribution<std::uint64_t>(0, bound - 1)(random_);
    }

  private:
    using pieces_t = std::vector<std::pair<std::uint64_t, std::uint64_t>>;  // start and length, in sectors

    void write_noise(const std::string& name, const std::string& format, const pieces_t& pieces);

    temp_dir_t dir_;
    std::mt19937_64 random_;
};

}  // namespace mirador
