// SPDX-License-Identifier: Apache-2.0
#include "tests/support/sparse_writer.h"

#include <fcntl.h>
#include <unistd.h>

#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "lib/file_io.h"
#include "tests/lib/temp_dir.h"

namespace mirador {
namespace {

constexpr std::uint32_t sector_bytes = 512;
constexpr std::uint32_t directory_sector = 1;
constexpr std::uint32_t flags = 3;  // line-end characters valid, redundant tables
constexpr mode_t file_mode = 0644;

std::uint32_t divide_up(std::uint64_t value, std::uint64_t by) {
    return static_cast<std::uint32_t>((value + by - 1) / by);
}

void write_at(int fd, const void* data, std::size_t size, std::uint64_t offset) {
    std::size_t done = 0;
    cor_assert(cor_pwrite(fd, data, size, static_cast<off_t>(offset), &done) == nullptr);
}

}  // namespace

sparse_image_t::sparse_image_t(std::uint32_t capacity, std::uint32_t grainsize, std::uint32_t numgtespergt) {
    const std::uint32_t tables = divide_up(capacity, std::uint64_t{grainsize} * numgtespergt);
    const std::uint32_t table_sectors = divide_up(numgtespergt * sizeof(std::uint32_t), sector_bytes);
    const std::uint32_t first_table = directory_sector + divide_up(tables * sizeof(std::uint32_t), sector_bytes);
    for (std::uint32_t i = 0; i < tables; ++i)
        directory.push_back(first_table + i * table_sectors);
    grains.resize(std::size_t{tables} * numgtespergt);
    hdr.magic = sparsehdr_t::magic_value;
    hdr.version = sparsehdr_t::version_value;
    hdr.flags = flags;
    hdr.capacity = capacity;
    hdr.grainsize = grainsize;
    hdr.numgtespergt = numgtespergt;
    hdr.gdoffset = directory_sector;
    hdr.overhead = first_table + tables * table_sectors;
    hdr.singleendlinechar = '\n';
    hdr.nonendlinechar = ' ';
    hdr.doubleendlinechar1 = '\r';
    hdr.doubleendlinechar2 = '\n';
    file_sectors = hdr.overhead + 4;  // long enough for a whole header of the other kind
}

std::uint32_t sparse_image_t::allocate(std::uint32_t grain) {
    grains[grain] = static_cast<std::uint32_t>(file_sectors);
    file_sectors += hdr.grainsize;
    return grains[grain];
}

void sparse_image_t::write(const std::string& path) const {
    const unique_fd fd(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, file_mode));
    cor_assert(fd);
    const std::size_t table_bytes = divide_up(hdr.numgtespergt * sizeof(std::uint32_t), sector_bytes) * sector_bytes;
    const std::size_t tables = grains.size() / hdr.numgtespergt;
    const std::uint64_t first_table = hdr.overhead * sector_bytes - tables * table_bytes;
    write_at(fd.get(), &hdr, sizeof hdr, 0);
    write_at(fd.get(), directory.data(), directory.size() * sizeof(std::uint32_t), directory_sector * sector_bytes);
    for (std::size_t i = 0; i < tables; ++i)
        write_at(fd.get(), grains.data() + i * hdr.numgtespergt, hdr.numgtespergt * sizeof(std::uint32_t),
                 first_table + i * table_bytes);
    cor_assert(ftruncate(fd.get(), static_cast<off_t>(file_sectors * sector_bytes)) == 0);
}

void descriptor_text_t::write(const std::string& path) const {
    std::string text = "# Disk DescriptorFile\nversion=1\nCID=" + cid + "\nparentCID=" + parent_cid +
                       "\ncreateType=\"" + createtype + "\"\n";
    if (!parent_hint.empty())
        text += "parentFileNameHint=\"" + parent_hint + "\"\n";
    for (const std::string& extent : extents)
        text += extent + "\n";
    write_file(path, text + rest);
}

void patch_file(const std::string& path, std::uint64_t offset, std::size_t size, std::uint64_t value) {
    const unique_fd fd(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    write_at(fd.get(), &value, size, offset);
}

}  // namespace mirador
