// SPDX-License-Identifier: Apache-2.0
// A directory of its own for each test of the exporter, with a shadow tree in it, the open-file table empty at start
// and end, and the mounter replaced by fake_vdsk.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "appliance/exporter/controller_thr.h"
#include "appliance/exporter/fake_vdsk.h"
#include "appliance/exporter/vm_proxy_evict.h"
#include "appliance/exporter/vm_proxy_touch.h"
#include "appliance/lib/registry.h"
#include "tests/lib/temp_dir.h"

namespace mirador {

class shadow_fixture_t : public testing::Test {
  protected:
    shadow_fixture_t() {
        std::filesystem::create_directories(shadow_);
        cnt_thr_set_up(shadow_, false);
        fake_vdsk_reset();
        fake_vdsk().device = make_file("device", std::string(disk_size, 'd'));
        fake_vdsk().extent_path = fake_vdsk().device;
    }
    ~shadow_fixture_t() override {
        vm_proxy_release_all();
        EXPECT_EQ(fake_vdsk().alive, 0);
    }

    static constexpr std::size_t disk_size = 1 << 20;

    std::string make_file(const std::string& name, const std::string& content) const {
        const std::string path = root_ + "/" + name;
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        return write_file(path, content);
    }

    // Puts an exported file into the shadow tree and returns its exported path.
    std::string expose(const std::string& name, vm_proxy_header_type_t type, const std::string& link,
                       const std::string& hv_name = "hv1", bool is_template = true) const {
        std::filesystem::create_directories(std::filesystem::path(shadow_ + "/" + name).parent_path());
        vm_proxy_touch_t touch;
        touch.link_path = link;
        touch.stat_path = link;
        touch.vm_uuid = "564d7a1b-2c3d-4e5f-6071-8293a4b5c6d7";
        touch.hv_name = hv_name;
        touch.type = type;
        touch.size = type == VM_PROXY_HEADER_VMDK_FLAT ? static_cast<std::int64_t>(disk_size) : 0;
        touch.is_template = is_template;
        EXPECT_EQ(vm_proxy_touch(shadow_ + "/" + name, touch), nullptr);
        return "/" + name;
    }

    std::string expose_disk(const std::string& name, const std::string& hv_name = "hv1") const {
        return expose(name, VM_PROXY_HEADER_VMDK_FLAT, fake_vdsk().device, hv_name);
    }

    std::string shadow_path(const std::string& path) const { return shadow_ + path; }

    const temp_dir_t dir_;
    const std::string root_ = dir_.path();
    const std::string shadow_ = root_ + "/shadow";
};

}  // namespace mirador
