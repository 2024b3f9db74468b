// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>

#include "tests/lib/temp_dir.h"
#include "tests/support/record_bytes.h"
#include "tests/tools/inspected.h"

namespace mirador {
namespace {

using namespace std::string_literals;
using testing::HasSubstr;
using testing::StartsWith;

constexpr std::size_t sector = 512;
const char* const kinds[] = {"vmdk", "extent", "proxy", "vdsk", "mbr", "cfg", "corcbt"};

record_bytes_t proxy_bytes() {
    record_bytes_t b(960);
    b.number(0, 4, 0xffffffff).number(4, 4, 1).number(8, 4, 5).number(56, 8, 5'000'000'000).number(84, 4, 77);
    b.number(112, 4, 1).text(116, "/vmfs/volumes/ds/vm/vm.cfg").text(629, "uuid").text(693, "esx1");
    return b;
}

// A disk with a partition at sector 63 and a virtual disk header in sector 4.
record_bytes_t disk_bytes() {
    record_bytes_t b(64 * sector);
    b.number(440, 4, 0xdeadbeef).number(446, 1, 0x80).number(450, 1, 0x83).number(454, 4, 63).number(510, 2, 0xAA55);
    b.text(2 * sector, "boot").text(3 * sector, "loader");
    b.text(4 * sector, "KVDH")
        .number(4 * sector + 4, 1, 2)
        .number(4 * sector + 5, 1, 1)
        .number(4 * sector + 10, 4, 4096);
    b.text(4 * sector + 88, "vm one\0\0esx1\0vm \xe9\0"s).text(4 * sector + 508, "KVDH");
    return b;
}

// A copy-on-write extent of 12,288 one-sector grains: tables of 4,096 entries at sectors 8 and 40, the third not there.
record_bytes_t cow_bytes() {
    record_bytes_t b(80 * sector);
    b.text(0, "COWD").number(4, 4, 1).number(8, 4, 3).number(12, 4, 12288).number(16, 4, 1).number(20, 4, 4);
    b.number(24, 4, 3).number(28, 4, 80);
    b.number(4 * sector, 4, 8).number(4 * sector + 4, 4, 40);
    b.number(8 * sector + 4 * 7, 4, 72).number(40 * sector, 4, 73);
    return b;
}

record_bytes_t sparse_bytes() {
    record_bytes_t b(80 * sector);
    b.text(0, "KDMV").number(4, 4, 1).number(8, 4, 1).number(12, 8, 1024).number(20, 8, 8).number(44, 4, 64);
    b.number(56, 8, 4).number(64, 8, 16).text(73, "\n \r\n");
    b.number(4 * sector, 4, 8).number(4 * sector + 4, 4, 9).number(8 * sector, 4, 16).number(9 * sector + 4, 4, 24);
    return b;
}

// Changed blocks: two records, in a list of a sector, and their data.
record_bytes_t corcbt_bytes() {
    record_bytes_t b(4 * sector);
    b.number(0, 4, 0xcbcb1111).number(4, 4, 1).number(8, 8, 372).number(16, 8, sector).number(24, 8, 3 * sector);
    b.number(32, 8, 4 * sector).number(40, 8, 1 << 20).text(48, "52 de/12").text(112, "web-flat.vmdk");
    b.number(372, 4, 0xcbcb4444).number(376, 8, 0).number(384, 8, sector);
    b.number(392, 4, 0xcbcb5555).number(396, 8, 4096).number(404, 8, 2 * sector);
    return b;
}

const char* const descriptor =
    "version=1\nCID=12345678\nparentCID=ffffffff\ncreateType=\"vmfs\"\nRW 64 VMFS \"d-flat.vmdk\"\n"
    "changeTrackPath=\"d-ctk.vmdk\"\nddb.uuid = \"60 00\"\n";

const std::string description =
    "version = \"1\"\nvmname = \"thin \\\"1\\\"\"\nservername = \"esx1\"\ndirectory = \"web\"\ndsname = \"ds1\"\n"
    "vmx-name = \"web.vmx\"\nvmdk.7.name = \"web.vmdk\"\nvmdk.7.extent-name = \"web-flat.vmdk\"\n"
    "vmdk.7.directory = \"web\"\nvmdk.7.dsname = \"ds1\"\nvmdk.7.size = 4096\nvmdk.7.type = \"thin\"\n";

TEST(inspect, TextIsTheDumpOfTheFormat) {
    const temp_dir_t dir;
    setenv("TZ", "UTC", 1);
    tzset();
    const std::string proxy = write_file(dir / "proxy", proxy_bytes().bytes());
    const std::string disk = write_file(dir / "disk", disk_bytes().bytes());
    const std::string vmdk = write_file(dir / "disk.vmdk", descriptor);
    const std::string cow = write_file(dir / "cow", cow_bytes().bytes());
    const std::string cfg = write_file(dir / "web.cfg", description);
    const std::string corcbt = write_file(dir / "web-corcbt.vmdk", corcbt_bytes().bytes());
    struct {
        std::vector<std::string> args;
        std::string begin;
        std::string end;
    } const cases[] = {
        {{"proxy", proxy}, proxy + "\nvm_proxy_header->magic = ffffffff\n", "vm_proxy_header->can_optimize = FALSE\n"},
        {{"vdsk", disk}, "type: VMDK\nversion: 2\n", "HV: esx1\nVM: vm \xe9\nDS: \npath: vm one\n"},
        {{"--sector", "4", "vdsk", disk}, "type: VMDK\nversion: 2\n", "path: vm one\n"},
        {{"mbr", "--", disk}, "Disk Signature:      deadbeef\nPartition Table  #1  :      bootable, type: 83", ")\n"},
        {{"vmdk", vmdk}, "---------------dump------------\nvmdkdesc.version = 1\n", "longcontentid = \n"},
        {{"corcbt", corcbt},
         "version:            1\nchangeid:           52 de/12\ndevice:             web-flat.vmdk\n",
         "extents:            2\n  512 bytes of the disk from 0 on, data at 512\n"
         "  1024 bytes of the disk from 4096 on, data at 1024\n"},
        {{"cfg", cfg}, "version = \"1\"\nvmname = \"thin \\\"1\\\"\"\n", "vmcfg->line_count = 12\n"},
        {{"extent", cow}, "magicnumber = 44574f43\n", "gde[0] = 8\nextent[0].gde[1] = 40\nextent[0].gde[2] = 0\n"},
        {{"extent", cow, "--grains"},
         "magicnumber = 44574f43\n",
         "extent[0].gde[0] = 8\nextent[0].gde[0].gte[7] = 72\nextent[0].gde[1] = 40\nextent[0].gde[1].gte[0] = 73\n"
         "extent[0].gde[2] = 0\n"},
    };
    for (const auto& c : cases) {
        const inspected_t result = inspect(c.args);
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(result.err, "");
        EXPECT_THAT(result.out, StartsWith(c.begin));
        EXPECT_THAT(result.out, testing::EndsWith(c.end));
    }
}

TEST(inspect, JsonHasTheFields) {
    const temp_dir_t dir;
    json_ptr json = parsed(inspect({"--json", "proxy", write_file(dir / "proxy", proxy_bytes().bytes())}));
    EXPECT_EQ(at(json, "/type"), "CFG");
    EXPECT_EQ(at(json, "/statb/size"), "5000000000");
    EXPECT_EQ(at(json, "/statb/mtime/sec"), "77");
    EXPECT_EQ(at(json, "/can_snapshot"), "true");
    EXPECT_EQ(at(json, "/hv_name"), "esx1");

    const std::string disk = write_file(dir / "disk", disk_bytes().bytes());
    json = parsed(inspect({"vdsk", disk, "--json"}));
    EXPECT_EQ(at(json, "/sector"), "4");
    EXPECT_EQ(at(json, "/size"), "4096");
    EXPECT_EQ(at(json, "/vm"), "vm \xef\xbf\xbd");  // a byte that is no character
    EXPECT_EQ(at(json, "/path"), "vm one");
    json = parsed(inspect({"mbr", disk, "--json"}));
    EXPECT_EQ(at(json, "/disk_signature"), std::to_string(0xdeadbeef));
    EXPECT_EQ(at(json, "/partitions/0/first_sector_lba"), "63");

    json = parsed(inspect({"--json", "vmdk", write_file(dir / "disk.vmdk", descriptor)}));
    EXPECT_EQ(at(json, "/cid"), std::to_string(0x12345678));
    EXPECT_EQ(at(json, "/extents/0/extentname"), "d-flat.vmdk");
    EXPECT_EQ(at(json, "/parentfilenamehint"), "null");
    EXPECT_EQ(at(json, "/change_track_path"), "\"d-ctk.vmdk\"");

    json = parsed(inspect({"--json", "corcbt", write_file(dir / "web-corcbt.vmdk", corcbt_bytes().bytes())}));
    EXPECT_EQ(at(json, "/changeid"), "52 de/12");
    EXPECT_EQ(at(json, "/flat_file_size"), "1048576");
    EXPECT_EQ(at(json, "/extents/1/start"), "4096");
    EXPECT_EQ(at(json, "/extents/1/length"), "1024");

    json = parsed(inspect({"--json", "cfg", write_file(dir / "web.cfg", description)}));
    EXPECT_EQ(at(json, "/vmname"), "thin \"1\"");
    EXPECT_EQ(at(json, "/vmuuid"), "null");
    EXPECT_EQ(at(json, "/disks/0/index"), "7");
    EXPECT_EQ(at(json, "/disks/0/size"), "4096");
    EXPECT_EQ(at(json, "/disks/0/type"), "thin");
}

// What is wrong with a file is one line, after whatever could be printed of it.
TEST(inspect, FaultsAreOneLine) {
    const temp_dir_t dir;
    struct {
        std::vector<std::string> args;
        std::string content;
        const char* error;
        const char* out;  // begins the output; empty: nothing at all
    } const cases[] = {
        {{"vmdk"}, "some other\ntext file\n", "no extents", ""},
        {{"extent", "--grains"}, sparse_bytes().number(8 * sector, 4, 1000).bytes(), "beyond the end", "magicnumber"},
        {{"extent", "--grains"}, cow_bytes().number(4 * sector + 8, 4, 40).bytes(), "tables overlap", "magicnumber"},
        {{"proxy"}, proxy_bytes().bytes().substr(0, 959), "short read 959", ""},
        {{"vdsk", "--sector", "4294967295"}, disk_bytes().bytes(), "sector 4294967295 holds no", ""},
        {{"mbr"}, disk_bytes().number(510, 2, 0).bytes(), "wrong signature", ""},
        {{"corcbt"}, corcbt_bytes().fill(48, 64, 'c').bytes(), "text without end", "version:            1\nchangeid:"},
        {{"cfg"}, "some other\ntext file\n", "syntax error at line 1", ""},
    };
    for (const auto& c : cases) {
        std::vector<std::string> args = c.args;
        args.push_back(write_file(dir / "file", c.content));
        const inspected_t result = inspect(args);
        EXPECT_EQ(result.status, 1) << c.error;
        EXPECT_THAT(result.err, StartsWith("mirador-inspect: "));
        EXPECT_THAT(result.err, HasSubstr(c.error));
        EXPECT_THAT(result.err, HasSubstr(dir / "file"));
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
        EXPECT_THAT(result.out, StartsWith(c.out));
        EXPECT_EQ(result.out.empty(), c.out[0] == '\0') << result.out;
        args.push_back("--json");
        EXPECT_EQ(inspect(args).status, 1);
    }
}

TEST(inspect, WhatIsNoFileIsRefusedAtOnce) {
    const temp_dir_t dir;
    const std::string fifo = dir / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const char* kind : kinds)
        for (const std::string& path : {fifo, dir.path(), "/dev/zero"s, dir / "absent"}) {
            const inspected_t result = inspect({kind, path});
            EXPECT_EQ(result.status, 1) << kind << " " << path;
            EXPECT_EQ(result.out, "");
            EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
        }
}

}  // namespace
}  // namespace mirador
