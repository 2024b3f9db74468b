// SPDX-License-Identifier: Apache-2.0
// The folders that users define at the controller: directories directly below the shadow root, in which VMs are
// exported instead of under their hypervisor. The controller thread's alone.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "controller/lib/kestrel_types.h"

namespace mirador {

// Makes the directories agree with the controller's list and keeps it as the one known now. In this order: what is new
// or renamed is made with process_user_defined_folders before a cycle updates its VMs; what disappeared goes with
// remove_old_user_defined_folders after VMs have left it. A folder renamed while it holds VMs has both directories
// meanwhile. What cannot be made, moved or removed is logged; a removal is tried again in the next cycle.
class user_folders_t {
  public:
    // Without a list nothing changes, neither here nor at the cycle's end.
    void process_user_defined_folders(const std::string& root, std::optional<std::vector<ks_vm_folder_t>> cur_folders);
    void remove_old_user_defined_folders(const std::string& root);
    void dump() const;

  private:
    bool is_current(const std::string& name) const;
    void process_folder(const std::string& root, const ks_vm_folder_t& folder);
    void rename_folder(const std::string& root, const ks_vm_folder_t& folder,
                       std::vector<ks_vm_folder_t>::iterator old_folder);

    std::vector<ks_vm_folder_t> fldr_list_;                     // after the last cycle; in a cycle, those not yet met
    std::optional<std::vector<ks_vm_folder_t>> cur_fldr_list_;  // of this cycle
};

}  // namespace mirador
