// SPDX-License-Identifier: Apache-2.0
#include "tests/support/cowd_writer.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "lib/cor_assert.h"
#include "lib/cor_string.h"
#include "vmware/lib/vmdk/sparse_format.h"

namespace mirador {
namespace {

constexpr std::uint32_t sector_bytes = 512;
constexpr std::uint32_t header_sectors = 4;
constexpr std::uint32_t table_entries = cowdiskhdr_t::numgtespergt;
constexpr std::uint32_t table_sectors = table_entries * sizeof(std::uint32_t) / sector_bytes;
constexpr mode_t file_mode = 0644;

std::uint32_t divide_up(std::uint64_t value, std::uint64_t by) {
    return static_cast<std::uint32_t>((value + by - 1) / by);
}

errdesc_t* open_file(const std::string& path, int flags, unique_fd* fd) {
    fd->reset(open(path.c_str(), flags | O_CLOEXEC, file_mode));
    return *fd ? nullptr : errdesc_set_str(errno, path);
}

// Two raw images of one size, read side by side.
struct image_pair_t {
    unique_fd base;
    unique_fd image;
    std::uint64_t size = 0;
};

errdesc_t* open_pair(const std::string& base, const std::string& image, image_pair_t* pair) {
    RETURN_IF_ERROR(open_file(base, O_RDONLY, &pair->base));
    RETURN_IF_ERROR(open_file(image, O_RDONLY, &pair->image));
    struct stat base_stat {};
    struct stat image_stat {};
    if (fstat(pair->base.get(), &base_stat) != 0 || fstat(pair->image.get(), &image_stat) != 0)
        return errdesc_set(errno);
    if (base_stat.st_size != image_stat.st_size || image_stat.st_size % sector_bytes != 0)
        return errdesc_set_str(EINVAL, image + " and " + base + " differ in size or end within a sector");
    pair->size = static_cast<std::uint64_t>(image_stat.st_size);
    return nullptr;
}

errdesc_t* add_differences(const image_pair_t& pair, cowd_writer_t* writer) {
    std::vector<char> base(writer->grain_bytes());
    std::vector<char> image(writer->grain_bytes());
    std::uint32_t grain = 0;
    for (std::uint64_t at = 0; at < pair.size; at += image.size(), ++grain) {
        std::size_t in_base = 0;
        std::size_t in_image = 0;
        RETURN_IF_ERROR(cor_pread(pair.base.get(), base.data(), base.size(), static_cast<off_t>(at), &in_base));
        RETURN_IF_ERROR(cor_pread(pair.image.get(), image.data(), image.size(), static_cast<off_t>(at), &in_image));
        if (std::memcmp(base.data(), image.data(), in_image) != 0)
            RETURN_IF_ERROR(writer->add_grain(grain, std::span(image).first(in_image)));
    }
    return nullptr;
}

}  // namespace

cowd_writer_t::cowd_writer_t(std::uint32_t capacity, std::uint32_t grainsize)
    : capacity_(capacity),
      grainsize_(grainsize),
      directory_(divide_up(capacity, std::uint64_t{grainsize} * table_entries)),
      tables_(directory_.size()),
      free_sector_(header_sectors + divide_up(directory_.size() * sizeof(std::uint32_t), sector_bytes)) {}

std::size_t cowd_writer_t::grain_bytes() const {
    return std::size_t{grainsize_} * sector_bytes;
}

errdesc_t* cowd_writer_t::create(const std::string& path) {
    return open_file(path, O_RDWR | O_CREAT | O_TRUNC, &fd_);
}

errdesc_t* cowd_writer_t::write(const void* data, std::size_t size, std::uint64_t sector) {
    std::size_t done = 0;
    return cor_pwrite(fd_.get(), data, size, static_cast<off_t>(sector * sector_bytes), &done);
}

errdesc_t* cowd_writer_t::add_grain(std::uint32_t grain, std::span<const char> data) {
    cor_assert(data.size() <= grain_bytes());
    const std::uint32_t table = grain / table_entries;
    if (tables_[table].empty()) {
        tables_[table].resize(table_entries);
        directory_[table] = free_sector_;
        free_sector_ += table_sectors;
    }
    std::uint32_t& entry = tables_[table][grain % table_entries];
    cor_assert(entry == 0);
    entry = free_sector_;
    free_sector_ += grainsize_;
    std::vector<char> whole(grain_bytes());
    std::ranges::copy(data, whole.begin());
    return write(whole.data(), whole.size(), entry);
}

errdesc_t* cowd_writer_t::finish() {
    cowdiskhdr_t header{};
    header.magic = cowdiskhdr_t::magic_value;
    header.version = cowdiskhdr_t::version_value;
    header.flags = cowdiskhdr_t::flags_value;
    header.numsectors = capacity_;
    header.grainsize = grainsize_;
    header.gdoffset = header_sectors;
    header.numgdentries = static_cast<std::uint32_t>(directory_.size());
    header.freesector = free_sector_;
    RETURN_IF_ERROR(write(&header, header_sectors * sector_bytes, 0));
    directory_.resize(divide_up(directory_.size() * sizeof(std::uint32_t), sector_bytes) * sector_bytes /
                      sizeof(std::uint32_t));
    RETURN_IF_ERROR(write(directory_.data(), directory_.size() * sizeof(std::uint32_t), header_sectors));
    for (std::size_t i = 0; i < tables_.size(); ++i) {
        if (!tables_[i].empty())
            RETURN_IF_ERROR(write(tables_[i].data(), table_sectors * sector_bytes, directory_[i]));
    }
    return nullptr;
}

errdesc_t* write_cowd_descriptor(const std::string& path, const cowd_descriptor_t& descriptor) {
    const std::string text = cor_format(
        "# Disk DescriptorFile\n"
        "version=1\n"
        "CID=%08x\n"
        "parentCID=%08x\n"
        "createType=\"vmfsSparse\"\n"
        "parentFileNameHint=\"%s\"\n"
        "\n"
        "# Extent description\n"
        "RW %u VMFSSPARSE \"%s\"\n"
        "\n"
        "# The Disk Data Base\n"
        "#DDB\n",
        descriptor.cid, descriptor.parent_cid, descriptor.parent_hint.c_str(), descriptor.capacity,
        descriptor.extent_name.c_str());
    unique_fd fd;
    RETURN_IF_ERROR(open_file(path, O_WRONLY | O_CREAT | O_TRUNC, &fd));
    std::size_t done = 0;
    return cor_pwrite(fd.get(), text.data(), text.size(), 0, &done);
}

errdesc_t* write_cowd_delta(const std::string& base, const std::string& image, const std::string& delta_path,
                            std::uint32_t grainsize, cowd_descriptor_t descriptor) {
    image_pair_t pair;
    RETURN_IF_ERROR(open_pair(base, image, &pair));
    const std::string extent_path = delta_path.substr(0, delta_path.rfind(".vmdk")) + "-delta.vmdk";
    descriptor.capacity = static_cast<std::uint32_t>(pair.size / sector_bytes);
    descriptor.extent_name = last_component(extent_path);
    cowd_writer_t writer(descriptor.capacity, grainsize);
    RETURN_IF_ERROR(writer.create(extent_path));
    RETURN_IF_ERROR(add_differences(pair, &writer));
    RETURN_IF_ERROR(writer.finish());
    return write_cowd_descriptor(delta_path, descriptor);
}

}  // namespace mirador
