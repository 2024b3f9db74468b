// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmsd/vmsd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <thread>

#include "lib/file_io.h"
#include "tests/lib/temp_dir.h"
#include "vmware/lib/vmsd/vmsd_parse.h"

namespace mirador {
namespace {

using namespace std::string_literals;
using testing::EndsWith;
using testing::HasSubstr;

std::string dump(const vmsddesc_t* desc) {
    char* text = nullptr;
    std::size_t size = 0;
    file_ptr stream(open_memstream(&text, &size));
    vmsd_dump_vmsddesc(desc, stream.get());
    stream.reset();
    const std::unique_ptr<char, decltype(&std::free)> owned(text, std::free);
    return {text, size};
}

class vmsd_test : public testing::Test {
  protected:
    // The dump of what the grammar makes of a text, or the error.
    std::string strict(const std::string& text) {
        vmsddesc_t desc;
        const errdesc_t* e = vmsd_parse_file_contents(write_file(dir_ / "strict.vmsd", text), &desc);
        return e == nullptr ? dump(&desc) : e->string;
    }
    std::string opened(const std::string& text) {
        vmsddesc_t desc;
        const errdesc_t* e = vmsd_open(write_file(dir_ / "vm.vmsd", text), &desc);
        EXPECT_EQ(desc.magic == vmsddesc_t::magic_value, e == nullptr);
        return e == nullptr ? dump(&desc) : e->string;
    }

    temp_dir_t dir_;
};

const char* const every_line =
    "# two snapshots\n"
    "snapshot.lastUID = \"7\"\n"
    "snapshot.numSnapshots = \"2\"\n"
    "\n"
    "SNAPSHOT.Current = \"-2\"   # signed\n"
    "snapshot.mru0.uid = \"7\"\n"
    "snapshot.needConsolidate = \"false\"\n"
    "snapshot0.uid = \"6\"\n"
    "snapshot0.filename = \"vm-Snapshot6.vmsn\"\n"
    "snapshot0.displayName = \"\"\n"
    "snapshot0.description = \"a \\ |22 # b = c\"\n"
    "snapshot0.type = \"1\"\n"
    "snapshot0.createTimeHigh = \"378422\"\n"
    "snapshot0.createTimeLow = \"-1\"\n"
    "snapshot0.numDisks = \"2\"\n"
    "snapshot0.disk1.fileName = \"data.vmdk\"\n"
    "snapshot0.disk1.node = \"scsi0:1\"\n"
    "snapshot2.uid = \"-3\"\n"
    "snapshot2.parent = \"6\"\n";

const char* const every_line_dumped =
    "vmsddesc.lastuid = 7\nvmsddesc.numsnapshots = 3\nvmsddesc.currentuid = -2\n"
    "vmsddesc.snapshot[0].uid = 6\nvmsddesc.snapshot[0].parentuid = 0\n"
    "vmsddesc.snapshot[0].filename = vm-Snapshot6.vmsn\nvmsddesc.snapshot[0].displayname = \n"
    "vmsddesc.snapshot[0].description = a \\ |22 # b = c\n"
    "vmsddesc.snapshot[0].createtimehigh = 378422\nvmsddesc.snapshot[0].createtimelow = 4294967295\n"
    "vmsddesc.snapshot[0].numdisks = 2\n"
    "vmsddesc.snapshot[0].disk[0].filename = (null)\nvmsddesc.snapshot[0].disk[0].node = (null)\n"
    "vmsddesc.snapshot[0].disk[1].filename = data.vmdk\nvmsddesc.snapshot[0].disk[1].node = scsi0:1\n"
    "vmsddesc.snapshot[2].uid = -3\nvmsddesc.snapshot[2].parentuid = 6\n"
    "vmsddesc.snapshot[2].filename = (null)\nvmsddesc.snapshot[2].displayname = (null)\n"
    "vmsddesc.snapshot[2].description = (null)\n"
    "vmsddesc.snapshot[2].createtimehigh = 0\nvmsddesc.snapshot[2].createtimelow = 0\n"
    "vmsddesc.snapshot[2].numdisks = 0\n";

TEST_F(vmsd_test, EveryLineFillsItsField) {
    EXPECT_EQ(strict(every_line), every_line_dumped);
    EXPECT_EQ(opened(every_line), every_line_dumped);
    vmsddesc_t desc;
    ASSERT_EQ(vmsd_parse_file_contents(dir_ / "vm.vmsd", &desc), nullptr);
    EXPECT_EQ(desc.snapshot[0].magic, 0xffffccffU);
    EXPECT_EQ(desc.snapshot[0].version, 1U);
    EXPECT_EQ(desc.snapshot[1].magic, 0U);
    EXPECT_EQ(desc.snapshot[2].uid, 0xfffffffffffffffdU);
    EXPECT_EQ(desc.snapshot[0].disk[0].magic, 0U);
    EXPECT_EQ(desc.snapshot[0].disk[1].magic, 0xffffccccU);
    EXPECT_EQ(dump(nullptr), "vmsddesc is NULL\n");
}

TEST_F(vmsd_test, TheGrammarIsStrict) {
    const char* const none = "vmsddesc.lastuid = 0\nvmsddesc.numsnapshots = 0\nvmsddesc.currentuid = 0\n";
    const std::string failed = "cannot parse the input file: Invalid argument";
    const std::string two = "snapshot.numSnapshots = \"2\"\n";
    const struct {
        std::string text;
        std::string result;  // the end of the dump, or the error
    } cases[] = {
        {"", none},
        {"\n\r\n# only\n \t\n", none},
        {"snapshot.lastUID = \"1\"", "lastuid = 1\nvmsddesc.numsnapshots = 0\nvmsddesc.currentuid = 0\n"},
        {"snapshot.lastUID = \"1\"\r\n", "lastuid = 1\nvmsddesc.numsnapshots = 0\nvmsddesc.currentuid = 0\n"},
        {"snapshot.lastUID = \"99999999999999999999\"\n",
         "lastuid = -1\nvmsddesc.numsnapshots = 0\nvmsddesc.currentuid = 0\n"},
        // What is of no use is dropped, silently.
        {"snapshot.lastUID = \"1\" ; $%\n", "lastuid = 1\nvmsddesc.numsnapshots = 0\nvmsddesc.currentuid = 0\n"},
        {"snapshot.lastUID = \"1\"\n\0garbage\n"s, "lastuid = 1\nvmsddesc.numsnapshots = 0\nvmsddesc.currentuid = 0\n"},
        // Before the count, or beyond it.
        {"snapshot0.uid = \"1\"\n", none},
        {"snapshot0.uid = \"1\"\n" + two, "numsnapshots = 3\nvmsddesc.currentuid = 0\n"},
        {two + "snapshot3.uid = \"1\"\nsnapshot-1.uid = \"1\"\nsnapshot99999999999999999999.uid = \"1\"\n",
         "numsnapshots = 3\nvmsddesc.currentuid = 0\n"},
        {two + "snapshot0.uid = \"1\"\nsnapshot0.disk0.fileName = \"a\"\nsnapshot0.numDisks = \"1\"\n",
         "disk[0].filename = (null)\nvmsddesc.snapshot[0].disk[0].node = (null)\n"},
        {two + "snapshot0.uid = \"1\"\n" + two, "numsnapshots = 3\nvmsddesc.currentuid = 0\n"},
        // Whatever does not fit.
        {".encoding = \"UTF-8\"\n", failed},
        {"snapshot.numClones = \"0\"\n", failed},
        {"snapshot.lastUID = 1\n", failed},
        {"snapshot.lastUID = \"\"\n", failed},
        {"snapshot.lastUID = \"1\" snapshot.current = \"1\"\n", failed},
        {"snapshot.lastUID =\n\"1\"\n", failed},
        {"snapshot.needConsolidate = \"maybe\"\n", failed},
        {two + "snapshot0.displayName = \"7\"\n", failed},
        {two + "snapshot0.displayName = \"true\"\n", failed},
        {two + "snapshot0.displayName = \"open\n", failed},
    };
    for (const auto& c : cases)
        EXPECT_THAT(strict(c.text), EndsWith(c.result)) << c.text;
    vmsddesc_t desc;
    EXPECT_EQ(vmsd_parse_file_contents(dir_ / "absent", &desc)->number, ENOENT);
}

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
    EXPECT_THAT(opened(".encoding = \"windows-1252\"\n"), HasSubstr("numsnapshots = 0\n"));
}

TEST_F(vmsd_test, CountsFirstAndInTheirOrder) {
    vmsd_filtered_t filtered;
    ASSERT_EQ(vmsd_filter("snapshot1.uid = \"2\"\nsnapshot1.numDisks = \"1\"\n snapshot.current=\"1\" # c\n"
                          "snapshot0.numDisks = \"3\"\nx\nsnapshot.numSnapshots = \"2\"",
                          &filtered),
              nullptr);
    EXPECT_EQ(filtered.text,
              "snapshot.numSnapshots = \"2\"\nsnapshot1.numDisks = \"1\"\nsnapshot0.numDisks = \"3\"\n"
              "snapshot1.uid = \"2\"\nsnapshot.current=\"1\" # c\n");
    EXPECT_EQ(filtered.lost_lines, 1U);
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
        {"snapshot.numSnapshots = \"2147483647\"\n", "a count out of range"},
        {"snapshot.numSnapshots = \"18446744073709551615\"\n", "a count out of range"},
        {one + "snapshot0.numDisks = \"4294967296\"\n", "a count out of range"},
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
    EXPECT_DEATH(strict("snapshot.numSnapshots = \"-1\"\n"), "the records fit into memory");
    EXPECT_DEATH(strict(one + "snapshot0.numDisks = \"1025\"\n"), "the records fit into memory");
}

TEST_F(vmsd_test, TheDatabaseOfADisk) {
    const auto of = [&](const std::string& disk) {
        vmsddesc_t desc;
        const errdesc_t* e = vmsd_open_by_vmdk(dir_ / disk, &desc);
        return e == nullptr ? desc.filename : e->string;
    };
    EXPECT_EQ(of("web-000001.vmdk"), "No snapshot database for " + (dir_ / "web-000001.vmdk"));
    EXPECT_THAT(of("absent/web.vmdk"), HasSubstr("No such file"));
    write_file(dir_ / ".vmsd", "");
    write_file(dir_ / "web.vmsd", "");
    EXPECT_EQ(of("other name.vmdk"), dir_ / "web.vmsd");
    write_file(dir_ / "web2.vmsd", "");
    EXPECT_EQ(of("web-000001.vmdk"), dir_ / "web.vmsd");
    EXPECT_EQ(of("web2_1-000001.vmdk"), dir_ / "web2.vmsd");
    EXPECT_THAT(of("other name.vmdk"), HasSubstr("No snapshot database"));
}

TEST_F(vmsd_test, ThreadsParseAtOnce) {
    const std::string path = write_file(dir_ / "vm.vmsd", every_line);
    std::atomic<int> wrong = 0;
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 20; ++i) {
                vmsddesc_t desc;
                if (vmsd_open(path, &desc) != nullptr || dump(&desc) != every_line_dumped)
                    ++wrong;
            }
        });
    threads.clear();
    EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace mirador
