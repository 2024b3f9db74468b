// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/user_folders.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <utility>
#include <vector>

#include "appliance/exporter/vm_state.h"
#include "tests/appliance/exporter/inventory_lab.h"

namespace mirador {
namespace {

class user_folders_test : public inventory_lab_t {
  protected:
    // One cycle with these folders: name, uuid.
    void cycle(const std::vector<std::pair<const char*, const char*>>& listed) {
        std::vector<ks_vm_folder_t> current;
        for (const auto& [name, uuid] : listed)
            current.push_back({.numVMs = 0, .fldr_name = name, .fldr_uuid = uuid});
        folders_.process_user_defined_folders(shadow_, std::move(current));
        folders_.remove_old_user_defined_folders(shadow_);
    }
    user_folders_t folders_;
};

TEST_F(user_folders_test, FolderMadeAnewUnderItsOldNameStays) {
    cycle({{"one", "f1"}});
    cycle({{"one", "f2"}});
    EXPECT_EQ(names(""), "one");
    cycle({{"one", "f2"}});
    EXPECT_EQ(names(""), "one");
    cycle({});
    EXPECT_EQ(names(""), "");
}

TEST_F(user_folders_test, FoldersThatSwapNamesBothStay) {
    cycle({{"one", "f1"}, {"two", "f2"}});
    cycle({{"two", "f1"}, {"one", "f2"}});
    cycle({{"two", "f1"}, {"one", "f2"}});
    EXPECT_EQ(names(""), "one two");
}

TEST_F(user_folders_test, DirectoryThatIsMissingIsMadeInTheNextCycle) {
    cycle({{"one", "f1"}});
    std::filesystem::remove(shadow_ + "/one");
    cycle({{"one", "f1"}});
    EXPECT_EQ(names(""), "one");
}

TEST_F(user_folders_test, HypervisorOfAFoldersNameKeepsItsDirectory) {
    cycle({{"esx1", "f1"}});
    lab_vm_t vm;
    list({vm});
    bool updated = false;
    ASSERT_EQ(vm_state_update(config(vm), host(vm), shadow_, 1, &updated), nullptr);
    cycle({{"lab", "f1"}});
    EXPECT_EQ(names(""), "esx1 lab");
    EXPECT_EQ(names("esx1"), "vm");
}

}  // namespace
}  // namespace mirador
