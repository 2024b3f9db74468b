// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/export_names.h"

#include <gtest/gtest.h>

namespace mirador {
namespace {

using name_function_t = errdesc_t* (*)(const std::string&, std::string*);

errdesc_t* corcbt_to_flat(const std::string& path, std::string* out) {
    return corcbt_to_export_file(path, "-flat.vmdk", out);
}

TEST(export_names, EachNameFollowsFromAnother) {
    struct {
        name_function_t function;
        const char* from;
        const char* to;  // or the error's text
    } const cases[] = {
        {corcbt_to_flat, "/vm/disk-corcbt.vmdk", "/export/vm/disk-flat.vmdk"},
        {corcbt_to_flat, "/x-corcbt.vmdk/a-corcbt.vmdk", "/export/x-corcbt.vmdk/a-flat.vmdk"},
        {corcbt_to_flat, "/x-corcbt.vmdk/a.vmdk", "Invalid corcbt vmdk path: invalid argument"},
        {corcbt_to_flat, "/vm/disk-flat.vmdk", "Invalid corcbt vmdk path: invalid argument"},
        {export_to_losetup_file, "/vm/disk-flat.vmdk", "/vm/disk-flat.vmdk-cbt-losetup"},
        {export_to_losetup_file, "/vm.1/disk", "/vm.vmdk-cbt-losetup"},
        {losetup_file_to_export, "/vm/disk-flat.vmdk-cbt-losetup", "/vm/disk-flat.vmdk"},
        {losetup_file_to_export, "/vm/disk.vmdk-cbt-losetupx", "Invalid export vmdk path: invalid argument"},
        {losetup_file_to_export, "", "Invalid export vmdk path: invalid argument"},
    };
    for (const auto& c : cases) {
        std::string name;
        const errdesc_t* e = c.function(c.from, &name);
        EXPECT_EQ(e == nullptr ? name : e->string, c.to) << c.from;
        EXPECT_TRUE(e == nullptr || e->number == ERR_INVALID_ARG);
    }
}

// Opens of these wait for one another, so a disk below a name of this kind must be none: its changed-block file waits
// for it.
TEST(export_names, TellsChangedBlockFilesFromTheDisksBehindThem) {
    for (const char* name : {"/vm/disk-corcbt.vmdk", "/vm/disk-corcbt.vmdk-cbt-losetup"})
        EXPECT_TRUE(is_corcbt_name(name)) << name;
    for (const char* name : {"/x-corcbt.vmdk/disk-flat.vmdk", "/x-corcbt.vmdk/disk-flat.vmdk-cbt-losetup",
                             "/vm/disk-corcbt.vmdk-flat.vmdk-cbt-losetup", "/vm/disk.vmdk", ""})
        EXPECT_FALSE(is_corcbt_name(name)) << name;
}

}  // namespace
}  // namespace mirador
