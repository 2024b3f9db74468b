// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <filesystem>

#include "lib/clock.h"
#include "tests/lib/temp_dir.h"
#include "tests/tools/inspected.h"

namespace mirador {
namespace {

using namespace std::string_literals;
using testing::HasSubstr;

std::string vmx_text(const std::string& name, const std::string& more) {
    return ".encoding = \"windows-1252\"\nuuid.bios = \"56 4d 7a 1b 2c 3d 4e 5f-60 71 82 93 a4 b5 c6 d7\"\n"
           "guestOS = \"other\"\ndisplayName = \"" +
           name + "\"\n" + more;
}

std::string disk_at(const std::string& at, const std::string& file) {
    return at + ".present = \"TRUE\"\n" + at + ".fileName = \"" + file + "\"\n";
}

TEST(inspect_vm, ConfigurationAsTextAndJson) {
    const temp_dir_t dir;
    const std::string path =
        write_file(dir / "vm.vmtx",
                   vmx_text("caf\xe9", disk_at("scsi0:3", "a.vmdk") + "scsi0:3.mode = \"independent-persistent\"\n" +
                                           "scsi0:4.present = \"FALSE\"\nworkingDir = \"snaps\"\nodd\n"));
    EXPECT_THAT(inspect({"vmx", path}).out, HasSubstr("vmxdesc->displayname = caf\xc3\xa9\n"));
    EXPECT_THAT(inspect({"vmx", path}).out, HasSubstr("vmxdesc->scsi0:3.filename = a.vmdk\n"));
    const json_ptr json = parsed(inspect({"--json", "vmx", path}));
    EXPECT_EQ(at(json, "/displayname"), "caf\xc3\xa9");
    EXPECT_EQ(at(json, "/is_template"), "true");
    EXPECT_EQ(at(json, "/working_directory"), dir / "snaps");
    EXPECT_EQ(at(json, "/disks/0/key"), "scsi0:3");
    EXPECT_EQ(at(json, "/disks/0/independent"), "true");
    EXPECT_EQ(at(json, "/disks/1"), "absent");
    EXPECT_EQ(at(json, "/devices/1/present"), "false");
    EXPECT_EQ(at(json, "/lost_lines"), "1");
}

TEST(inspect_vm, SnapshotDatabaseAsTextAndJson) {
    const temp_dir_t dir;
    const std::string path = write_file(
        dir / "vm.vmsd",
        ".encoding = \"windows-1252\"\nsnapshot0.uid = \"4\"\nsnapshot0.displayName = \"caf\xe9 |22x|22\"\n"
        "snapshot0.createTimeHigh = \"1\"\nsnapshot0.createTimeLow = \"-1\"\nsnapshot0.disk0.fileName = \"a.vmdk\"\n"
        "snapshot0.numDisks = \"1\"\nsnapshot.numSnapshots = \"1\"\nsnapshot.current = \"4\"\n");
    EXPECT_THAT(inspect({"vmsd", path}).out, HasSubstr("vmsddesc.snapshot[0].uid = 4\n"));
    const json_ptr json = parsed(inspect({"--json", "vmsd", path}));
    EXPECT_EQ(at(json, "/currentuid"), "4");
    EXPECT_EQ(at(json, "/snapshots/0/displayname"), "caf\xc3\xa9 \"x\"");
    EXPECT_EQ(at(json, "/snapshots/0/create_time_us"), "8589934591");
    EXPECT_EQ(at(json, "/snapshots/0/description"), "null");
    EXPECT_EQ(at(json, "/snapshots/0/disks/0/filename"), "a.vmdk");
    EXPECT_EQ(at(json, "/snapshots/1"), "absent");
    write_file(path, "snapshot.numSnapshots = \"-7\"\n");
    EXPECT_EQ(inspect({"vmsd", path}).err,
              "mirador-inspect: Snapshot database refused, a count out of range: " + path + "\n");
    EXPECT_EQ(inspect({"vmsd", path}).status, 1);
    EXPECT_THAT(inspect({"vmx", write_file(dir / "vm.vmx", "")}).err, HasSubstr("no setting in it"));
}

class discover_test : public testing::Test {
  protected:
    void write(const std::string& path, const std::string& text) {
        std::filesystem::create_directories(std::filesystem::path(dir_ / path).parent_path());
        write_file(dir_ / path, text);
    }

    // A VM whose one disk is a delta over a flat base.
    void make_vm(const std::string& path, const std::string& name) {
        const std::string dir = std::filesystem::path(path).parent_path();
        write(path, vmx_text(name, disk_at("scsi0:0", "d-000001.vmdk") + "scsi0:0.ctkEnabled = \"TRUE\"\n"));
        write(dir + "/d-000001.vmdk",
              "version=1\nCID=2\nparentCID=1\ncreateType=\"vmfsSparse\"\nparentFileNameHint=\"d.vmdk\"\n"
              "RW 128 VMFSSPARSE \"d-000001-delta.vmdk\"\nchangeTrackPath=\"d-000001-ctk.vmdk\"\n");
        write(dir + "/d.vmdk",
              "version=1\nCID=1\nparentCID=ffffffff\ncreateType=\"vmfs\"\nRW 128 VMFS \"d-flat.vmdk\"\n"
              "ddb.thinProvisioned = \"1\"\n");
        write(dir + "/d-flat.vmdk", std::string(65536, 'd'));
    }

    std::vector<std::string> names(const json_ptr& json) {
        std::vector<std::string> result;
        for (std::size_t i = 0; i < json_object_array_length(json.get()); ++i)
            result.push_back(at(json, "/" + std::to_string(i) + "/name"));
        return result;
    }

    temp_dir_t dir_;
    manual_clock_t clock_{1'000'000'000};
};

TEST_F(discover_test, EveryVmOnceAndWhatIsBrokenStandsInItsEntry) {
    make_vm("ds1/b/b.vmx", "b");
    make_vm("ds1/t/t.vmtx", "t");
    make_vm("ds1/.snapshot/hourly.0/b/b.vmx", "past");
    make_vm("ds2/a/a.vmx", "a");
    write("ds1/c/c.vmx", "\0\0\0"s);
    write("ds1/d/d.vmx", vmx_text("d", disk_at("scsi0:0", "gone.vmdk")));
    write("ds1/e/e.vmx", vmx_text("e", ""));
    write("ds1/f/f.vmx", vmx_text("f", disk_at("sata0:0", "../e/e.vmdk") + disk_at("sata0:1", "f.vmdk")));
    write("ds1/e/e.vmdk", "no descriptor\n");
    make_vm("ds1/f/unused.txt", "");
    std::filesystem::rename(dir_ / "ds1/f/d.vmdk", dir_ / "ds1/f/f.vmdk");
    std::filesystem::create_directory_symlink(dir_ / "ds2", dir_ / "label");
    std::filesystem::create_directories(dir_ / "ds1/g.vmx");

    testing::internal::CaptureStdout();
    const inspected_t result =
        inspect({"discover", "--json", dir_ / "ds1", dir_ / "ds1/b", dir_ / "absent", dir_ / "label"});
    EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::IsEmpty());  // what is logged is no output
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "mirador-inspect: " + (dir_ / "absent") + ": No such file or directory\n");
    const json_ptr json = parsed(result);
    EXPECT_THAT(names(json), testing::ElementsAre("b", "", "d", "e", "f", "t", "a"));
    EXPECT_THAT(at(json, "/1/err/string"), HasSubstr("no setting in it: " + (dir_ / "ds1/c/c.vmx")));
    EXPECT_EQ(at(json, "/1/size"), "3");
    EXPECT_EQ(at(json, "/1/is_template"), "false");
    EXPECT_EQ(at(json, "/1/disks"), "absent");
    EXPECT_EQ(at(json, "/2/err"), "null");
    EXPECT_THAT(at(json, "/2/disks/0/err/string"), HasSubstr("gone.vmdk: No such file"));
    EXPECT_THAT(at(json, "/3/err/string"), HasSubstr("no virtual disks for"));
    EXPECT_THAT(at(json, "/4/disks/0/err/string"), HasSubstr("VMDK descriptor refused"));
    EXPECT_EQ(at(json, "/4/disks/1/err"), "null");
    EXPECT_EQ(at(json, "/5/is_template"), "true");
    EXPECT_EQ(at(json, "/6/filename"), dir_ / "label/a/a.vmx");
    EXPECT_EQ(clock_.slept(), 6);
}

}  // namespace
}  // namespace mirador
