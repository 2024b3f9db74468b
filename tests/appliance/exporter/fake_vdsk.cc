// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/fake_vdsk.h"

#include "appliance/mounter/vdsk.h"

namespace mirador {

namespace {

std::unique_ptr<fake_vdsk_t>& instance() {
    static auto fake = std::make_unique<fake_vdsk_t>();
    return fake;
}

}  // namespace

fake_vdsk_t& fake_vdsk() {
    return *instance();
}

void fake_vdsk_reset() {
    instance() = std::make_unique<fake_vdsk_t>();
}

errdesc_t* vdsk_setup(const std::string& path, std::unique_ptr<vdskdesc_t>* vdskdesc) {
    fake_vdsk_t& fake = fake_vdsk();
    fake.set_ups.push_back(path);
    errnum_t number = 0;
    if (!fake.failures.empty()) {
        number = fake.failures.front();
        fake.failures.pop_front();
    }
    if (number != 0)
        return errdesc_set_str(number, path);
    auto disk = std::make_unique<vdskdesc_t>();
    disk->devicemapper_path = fake.device;
    disk->dm_name = "fake";
    disk->vdsk_extent_path = fake.extent_path;
    disk->vmdkdesc.vmdk_ancestor_array = {&disk->vmdkdesc};
    fake.alive++;
    *vdskdesc = std::move(disk);
    return nullptr;
}

void vdsk_teardown(vdskdesc_t* vdskdesc) {
    if (!vdskdesc->dm_name.empty())
        fake_vdsk().alive--;
    vdskdesc->dm_name.clear();
}

vdskdesc_t::~vdskdesc_t() {
    vdsk_teardown(this);
}

errdesc_t* vdsk_get_partitions(const std::string& device, std::vector<vdsk_partition_t>*) {
    const errnum_t number = fake_vdsk().partitions_failure;
    return number == 0 ? nullptr : errdesc_set_str(number, device);
}

errdesc_t* vdsk_get_volume_groups(const std::string&, const std::vector<vdsk_partition_t>&,
                                  std::vector<vdsk_volume_group_t>*) {
    return nullptr;
}

}  // namespace mirador
