// SPDX-License-Identifier: Apache-2.0
#include "appliance/mounter/vdsk_partitions.h"

#include <blkid/blkid.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <type_traits>

#include "appliance/mounter/lvm_label.h"
#include "lib/cor_string.h"
#include "lib/file_io.h"

namespace mirador {
namespace {

constexpr std::uint64_t sector_bytes = 512;
constexpr int whole_disk = 0;

struct probe_closer_t {
    void operator()(blkid_probe probe) const { blkid_free_probe(probe); }
};
using probe_ptr = std::unique_ptr<std::remove_pointer_t<blkid_probe>, probe_closer_t>;

// An open device and its size in bytes.
struct device_t {
    unique_fd fd;
    std::uint64_t size = 0;
};

errdesc_t* open_device(const std::string& path, device_t* device) {
    device->fd.reset(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    const off_t end = device->fd ? lseek(device->fd.get(), 0, SEEK_END) : -1;
    if (end < 0)
        return errdesc_set_str(errno, path);
    device->size = static_cast<std::uint64_t>(end);
    return nullptr;
}

// A device that cannot be read is told from one without a table.
errdesc_t* check_readable(const device_t& device, const std::string& path) {
    char sector[sector_bytes];
    std::size_t done = 0;
    if (errdesc_t* e = cor_pread(device.fd.get(), sector, sizeof sector, 0, &done))
        return errdesc_set_str(e->number, path);
    return nullptr;
}

vdsk_partition_t describe(blkid_partition part) {
    vdsk_partition_t partition;
    partition.number = blkid_partition_get_partno(part);
    partition.start = static_cast<std::uint64_t>(blkid_partition_get_start(part));
    partition.size = static_cast<std::uint64_t>(blkid_partition_get_size(part));
    const char* type = blkid_partition_get_type_string(part);
    partition.type = type != nullptr ? type : cor_format("0x%x", static_cast<unsigned>(blkid_partition_get_type(part)));
    return partition;
}

void add_volume_group(const device_t& device, const vdsk_partition_t& partition,
                      std::vector<vdsk_volume_group_t>* volume_groups) {
    const std::uint64_t sectors = device.size / sector_bytes;
    if (partition.start > sectors || partition.size > sectors - partition.start)
        return;
    vdsk_volume_group_t group;
    group.partition = partition.number;
    if (lvm_read_group_name(device.fd.get(), partition.start * sector_bytes, partition.size * sector_bytes,
                            &group.name))
        volume_groups->push_back(std::move(group));
}

}  // namespace

errdesc_t* vdsk_get_partitions(const std::string& device, std::vector<vdsk_partition_t>* partitions) {
    partitions->clear();
    device_t opened;
    RETURN_IF_ERROR(open_device(device, &opened));
    RETURN_IF_ERROR(check_readable(opened, device));
    const probe_ptr probe(blkid_new_probe());
    if (!probe || blkid_probe_set_device(probe.get(), opened.fd.get(), 0, 0) != 0)
        return errdesc_set_str(errno, device);
    const blkid_partlist list = blkid_probe_get_partitions(probe.get());
    const int count = list != nullptr ? blkid_partlist_numof_partitions(list) : 0;
    for (int i = 0; i < count; ++i)
        partitions->push_back(describe(blkid_partlist_get_partition(list, i)));
    return nullptr;
}

errdesc_t* vdsk_get_volume_groups(const std::string& device, const std::vector<vdsk_partition_t>& partitions,
                                  std::vector<vdsk_volume_group_t>* volume_groups) {
    volume_groups->clear();
    device_t opened;
    RETURN_IF_ERROR(open_device(device, &opened));
    for (const vdsk_partition_t& partition : partitions)
        add_volume_group(opened, partition, volume_groups);
    add_volume_group(opened, {.number = whole_disk, .start = 0, .size = opened.size / sector_bytes, .type = {}},
                     volume_groups);
    return nullptr;
}

void vdsk_free_partitions(std::vector<vdsk_partition_t>* partitions) {
    *partitions = {};
}

void vdsk_free_volume_groups(std::vector<vdsk_volume_group_t>* volume_groups) {
    *volume_groups = {};
}

}  // namespace mirador
