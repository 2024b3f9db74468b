// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmsd/vmsd.h"

#include <gmock/gmock.h>

#include "tests/lib/temp_dir.h"
#include "tests/support/record_bytes.h"
#include "vmware/lib/vmsd/vmsd_parse.h"

namespace mirador {
namespace {

using testing::HasSubstr;

std::string dump(const vmsddesc_t* desc) {
    return printed([&](std::FILE* stream) { vmsd_dump_vmsddesc(desc, stream); });
}

class vmsd_test : public testing::Test {
  protected:
    std::string opened(const std::string& text) {
        vmsddesc_t desc;
        const errdesc_t* e = vmsd_open(write_file(dir_ / "vm.vmsd", text), &desc);
        EXPECT_EQ(desc.magic == vmsddesc_t::magic_value, e == nullptr);
        return e == nullptr ? dump(&desc) : e->string;
    }

    temp_dir_t dir_;
};

TEST_F(vmsd_test, WhatHostsWrite) {
    const std::string host =
        ".encoding = \"UTF-8\"\r\n"
        "snapshot.lastUID = \"2\"\r\n"
        "snapshot.current = \"2\"\r\n"
        "snapshot0.uid = \"1\"\r\n"
        "snapshot0.filename = \"vm-Snapshot1.vmsn\"\r\n"
        "snapshot0.displayName = \"2024\"\r\n"
        "snapshot0.description = \"TRUE\"\r\n"
        "snapshot0.createTimeHigh = \"378422\"\r\n"
        "snapshot0.createTimeLow = \"-1947283952\"\r\n"
        "snapshot0.disk0.fileName = \"vm.vmdk\"\r\n"
        "snapshot0.disk0.node = \"scsi0:0\"\r\n"
        "snapshot0.numDisks = \"1\"\r\n"
        "snapshot0.clone0 = \"/vmfs/volumes/ds/clone/clone.vmx\"\r\n"
        "snapshot0.guid = \"5\"\r\n"
        "snapshot0.disk0.nodeType = \"scsi9:9\"\r\n"
        "snapshot.numSentinels = \"1\"\r\n"
        "sentinel0 = \"5\"\r\n"
        "no line of any kind\r\n"
        "snapshot.mru0.uid = \"2\"\r\n"
        "snapshot.numSnapshots = \"1\"";
    EXPECT_EQ(opened(host),
              "vmsddesc.lastuid = 2\nvmsddesc.numsnapshots = 2\nvmsddesc.currentuid = 2\n"
              "vmsddesc.snapshot[0].uid = 1\nvmsddesc.snapshot[0].parentuid = 0\n"
              "vmsddesc.snapshot[0].filename = vm-Snapshot1.vmsn\nvmsddesc.snapshot[0].displayname = 2024\n"
              "vmsddesc.snapshot[0].description = TRUE\n"
              "vmsddesc.snapshot[0].createtimehigh = 378422\nvmsddesc.snapshot[0].createtimelow = 2347683344\n"
              "vmsddesc.snapshot[0].numdisks = 1\n"
              "vmsddesc.snapshot[0].disk[0].filename = vm.vmdk\nvmsddesc.snapshot[0].disk[0].node = scsi0:0\n");
    vmsddesc_t desc;
    ASSERT_EQ(vmsd_open(dir_ / "vm.vmsd", &desc), nullptr);
    EXPECT_EQ(desc.encoding, "UTF-8");
    EXPECT_EQ(desc.lost_lines, 6U);
    EXPECT_EQ(desc.filename, dir_ / "vm.vmsd");
    EXPECT_THAT(opened(""), HasSubstr("numsnapshots = 0\n"));
}

TEST_F(vmsd_test, CountsThatCannotBeAreRefused) {
    const auto lines = [](const char* line, int times) {
        std::string text;
        for (int i = 0; i < times; ++i)
            text += line;
        return text;
    };
    const std::string one = "snapshot.numSnapshots = \"1\"\n";
    const std::string name = one + "snapshot0.numDisks = \"1\"\nsnapshot0.disk0.fileName = \"";
    const struct {
        std::string text;
        std::string result;
    } cases[] = {
        {"snapshot.numSnapshots = \"16383\"\n", "numsnapshots = 16384\n"},
        {"snapshot.numSnapshots = \"16384\"\n", "a count out of range"},
        {"snapshot.numSnapshots = \"-1\"\n", "a count out of range"},
        {one + "snapshot0.numDisks = \"-5\"\n", "a count out of range"},
        {one + "snapshot0.numDisks = \"1024\"\n", "numsnapshots = 2\n"},
        {lines("snapshot.numSnapshots = \"9000\"\n", 2), "too many snapshots"},
        {one + lines("snapshot0.numDisks = \"1024\"\n", 65), "too many disks"},
        {name + std::string(1022, 'n') + "\"\n", "numsnapshots = 2\n"},
        {name + std::string(1023, 'n') + "\"\n", "a file name too long"},
        {one + "snapshot0.description = \"" + std::string(5000, 'd') + "\"\n", "numsnapshots = 2\n"},
        {std::string(vmsd_max_text + 1, '\n'), "too long"},
    };
    for (const auto& c : cases) {
        const std::string result = opened(c.text);
        EXPECT_THAT(result, HasSubstr(c.result)) << c.text.substr(0, 80);
        EXPECT_TRUE(result.ends_with("currentuid = 0\n") || result.ends_with(dir_ / "vm.vmsd")) << result;
    }
}

}  // namespace
}  // namespace mirador
