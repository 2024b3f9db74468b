// SPDX-License-Identifier: Apache-2.0
// A large disk for benchmarks that read only what describes it: a flat base and one delta over it, both files that are
// almost entirely holes, with real grain tables.
#pragma once

#include <cstdint>
#include <string>

namespace mirador {

enum class layout_t {
    scattered,  // every grain is held or not by itself, and lies anywhere in the delta
    clustered,  // runs of cluster_grains grains are held or not together, and lie back to back
};
inline constexpr std::uint32_t cluster_grains = 64;

struct synthetic_disk_t {
    static constexpr std::uint64_t capacity = 1ULL << 31;  // sectors: 1 TiB
    static constexpr std::uint32_t grainsize = 128;        // sectors: 64 KiB
    static constexpr std::uint32_t table_entries = 512;
    static constexpr std::uint64_t grains = capacity / grainsize;
};

// Writes the disk into `directory`, which must exist, and returns the path of the delta's descriptor. The delta holds
// `percent` of the grains, always the same ones. Ends the process with a message when a file cannot be written.
std::string write_synthetic_disk(const std::string& directory, unsigned percent, layout_t layout);

}  // namespace mirador
