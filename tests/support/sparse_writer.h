// SPDX-License-Identifier: Apache-2.0
// Writes sparse extents whose tables say what a test wants them to say, sound or not. Only header, directory and tables
// are written; the grains are holes of the file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vmware/lib/vmdk/sparse_format.h"

namespace mirador {

struct sparse_image_t {
    // A sound extent of `capacity` sectors in which no grain is allocated.
    explicit sparse_image_t(std::uint32_t capacity, std::uint32_t grainsize = 128, std::uint32_t numgtespergt = 512);

    // Allocates a grain at the file's end; the sector that it got.
    std::uint32_t allocate(std::uint32_t grain);

    // Writes the file, `file_sectors` long. The tables lie behind the directory, one after another; what `directory`
    // says need not be where they are.
    void write(const std::string& path) const;

    sparsehdr_t hdr{};
    std::vector<std::uint32_t> directory;
    std::vector<std::uint32_t> grains;  // the tables one after another: sector of each grain
    std::uint64_t file_sectors = 0;
};

// A descriptor's text: header lines, then the extent lines as given ("RW 100 SPARSE \"a.vmdk\"").
struct descriptor_text_t {
    std::string createtype = "monolithicSparse";
    std::string cid = "00000001";
    std::string parent_cid = "ffffffff";
    std::string parent_hint;  // empty: no hint
    std::vector<std::string> extents;
    std::string rest;  // further lines

    void write(const std::string& path) const;
};

// Overwrites `size` (at most 8) bytes at `offset` of a file with the little-endian `value`.
void patch_file(const std::string& path, std::uint64_t offset, std::size_t size, std::uint64_t value);

}  // namespace mirador
