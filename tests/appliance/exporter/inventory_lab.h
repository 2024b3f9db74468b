// SPDX-License-Identifier: Apache-2.0
// A small world for tests of the inventory: a controller that answers what the test tells it and keeps what it is
// sent, a datastore with VMs on it, a shadow tree, a cache.
#pragma once

#include <gtest/gtest.h>
#include <json-c/json.h>

#include <string>
#include <vector>

#include "controller/lib/controller_url.h"
#include "controller/lib/kestrel_types.h"
#include "tests/lib/temp_dir.h"
#include "tests/support/fake_controller.h"

namespace mirador {

// One disk as the controller lists it; paths are below the lab's datastore.
struct lab_disk_t {
    std::string name = "disk.vmdk";
    std::string dir = "vm";  // of base and head
    std::string head = "";   // head descriptor's file name; the base's when empty
    bool independent = false;
    bool thin = false;
    std::string extent = "";  // base extent's file name; the descriptor's with "-flat" when empty
};

struct lab_vm_t {
    std::string name = "vm";
    std::string uuid = "564d0001";
    std::string folder;
    std::string host = "esx1";
    bool use_cbt = false;
    bool cbt_reset_pending = false;
    int cbt_reset_time = 0;
    int cbt_reset_time_prev = 0;
    bool exported = true;
    int snap_exists = -1;
    bool quiesce = false;
    std::string suffix;  // of its snapshots' names
    int discovered = 0;  // a change of it alone makes the VM "changed"
    std::vector<lab_disk_t> disks = {{}};
};

class inventory_lab_t : public testing::Test {
  protected:
    inventory_lab_t();
    ~inventory_lab_t() override;

    static constexpr std::int64_t disk_bytes = 1 << 20;

    // Writes the files of a VM: VMX, descriptors, flat extents.
    void make_files(const lab_vm_t& vm) const;
    void make_disk(const lab_disk_t& disk) const;
    // Has the controller list these VMs, under the hypervisors that they name and alone, and their disks.
    void list(const std::vector<lab_vm_t>& vms);
    // As the fake controller does.
    void answer(const std::string& object, const std::string& body, int status = 200) {
        controller_.answer(object, body, status);
    }
    std::vector<std::string> posted(const std::string& object) const { return controller_.posted(object); }

    ks_vm_config_t config(const lab_vm_t& vm) const;
    static ks_hypervisor_config_t host(const lab_vm_t& vm);

    // "<action> <alert id> <object id>" of each alert request since the last call.
    std::vector<std::string> alerts();

    // Names in a directory of the shadow tree, sorted; "-" when there is none.
    std::string names(const std::string& dir) const;

    fake_controller_t& controller_ = fake_controller_t::fresh(controller_get_url);
    temp_dir_t dir_;
    const std::string shadow_ = dir_ / "shadow";
    const std::string datastore_ = dir_ / "volumes/ds1";

  private:
    std::string vm_json(const lab_vm_t& vm) const;
    std::string disks_json(const lab_vm_t& vm) const;
    std::size_t alerts_seen_ = 0;
};

}  // namespace mirador
