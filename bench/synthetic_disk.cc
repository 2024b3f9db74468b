// SPDX-License-Identifier: Apache-2.0
#include "bench/synthetic_disk.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <span>
#include <vector>

#include "lib/cor_string.h"
#include "lib/file_io.h"
#include "vmware/lib/vmdk/sparse_format.h"
#include "vmware/lib/vmdk/vmdkdesc.h"

namespace mirador {
namespace {

using disk_t = synthetic_disk_t;
using sectors_t = std::vector<std::uint32_t>;

constexpr std::uint32_t tables = disk_t::grains / disk_t::table_entries;
constexpr std::uint32_t table_sectors = disk_t::table_entries * sizeof(std::uint32_t) / sector_size;
constexpr std::uint32_t gd_sector = 1;
constexpr std::uint32_t first_table_sector = gd_sector + tables * sizeof(std::uint32_t) / sector_size;
constexpr std::uint32_t first_grain_sector =
    (first_table_sector + tables * table_sectors + disk_t::grainsize - 1) / disk_t::grainsize * disk_t::grainsize;

void require(bool done, const std::string& path) {
    if (!done) {
        std::perror(path.c_str());
        std::exit(1);
    }
}

void write_at(int fd, std::uint64_t sector, const void* data, std::size_t size, const std::string& path) {
    const ssize_t written = pwrite(fd, data, size, static_cast<off_t>(sector * sector_size));
    require(written == static_cast<ssize_t>(size), path);
}

unique_fd make_file(const std::string& path, std::uint64_t sectors) {
    unique_fd fd(open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    require(fd && ftruncate(fd.get(), static_cast<off_t>(sectors * sector_size)) == 0, path);
    return fd;
}

void write_descriptor(const std::string& path, const char* createtype, const char* parent, const char* extent) {
    const file_ptr file(std::fopen(path.c_str(), "w"));
    require(file != nullptr, path);
    std::fprintf(file.get(), "# Disk DescriptorFile\nversion=1\nCID=%s\nparentCID=%s\ncreateType=\"%s\"\n",
                 *parent == '\0' ? "00000001" : "00000002", *parent == '\0' ? "ffffffff" : "00000001", createtype);
    if (*parent != '\0')
        std::fprintf(file.get(), "parentFileNameHint=\"%s\"\n", parent);
    std::fprintf(file.get(), "# Extent description\nRW %" PRIu64 " %s\n# The Disk Data Base\n#DDB\n", disk_t::capacity,
                 extent);
}

// For every grain the delta's sector, 0 for one it lacks.
sectors_t place_grains(unsigned percent, layout_t layout, std::uint32_t* used) {
    std::mt19937_64 random(percent);  // NOLINT(cert-msc32-c,cert-msc51-cpp): the same disk every time
    std::bernoulli_distribution is_held(percent / 100.0);
    const std::uint32_t run = layout == layout_t::clustered ? cluster_grains : 1;
    sectors_t places(disk_t::grains);
    sectors_t order;
    for (std::size_t grain = 0; grain < places.size(); grain += run) {
        if (is_held(random))
            order.push_back(static_cast<std::uint32_t>(grain));
    }
    std::shuffle(order.begin(), order.end(), random);
    *used = first_grain_sector;
    for (const std::uint32_t grain : order) {
        for (std::uint32_t i = 0; i < run; ++i, *used += disk_t::grainsize)
            places[grain + i] = *used;
    }
    return places;
}

void write_delta(const std::string& path, const sectors_t& places, std::uint32_t sectors) {
    const unique_fd fd = make_file(path, sectors);
    sparsehdr_t header{};
    header.magic = sparsehdr_t::magic_value;
    header.version = sparsehdr_t::version_value;
    header.capacity = disk_t::capacity;
    header.grainsize = disk_t::grainsize;
    header.numgtespergt = disk_t::table_entries;
    header.gdoffset = gd_sector;
    header.overhead = first_grain_sector;
    write_at(fd.get(), 0, &header, sizeof header, path);
    sectors_t directory(tables);
    for (std::uint32_t t = 0; t < tables; ++t) {
        const auto table = std::span(places).subspan(std::size_t{t} * disk_t::table_entries, disk_t::table_entries);
        if (std::ranges::all_of(table, [](std::uint32_t sector) { return sector == 0; }))
            continue;
        directory[t] = first_table_sector + t * table_sectors;
        write_at(fd.get(), directory[t], table.data(), table.size_bytes(), path);
    }
    write_at(fd.get(), gd_sector, directory.data(), directory.size() * sizeof directory[0], path);
}

}  // namespace

std::string write_synthetic_disk(const std::string& directory, unsigned percent, layout_t layout) {
    std::uint32_t used = 0;
    const sectors_t places = place_grains(percent, layout, &used);
    make_file(directory + "/base-flat.vmdk", disk_t::capacity);
    write_descriptor(directory + "/base.vmdk", "monolithicFlat", "", "FLAT \"base-flat.vmdk\" 0");
    write_delta(directory + "/delta-s001.vmdk", places, used);
    const std::string delta = directory + "/delta.vmdk";
    write_descriptor(delta, "twoGbMaxExtentSparse", "base.vmdk", "SPARSE \"delta-s001.vmdk\"");
    return delta;
}

}  // namespace mirador
