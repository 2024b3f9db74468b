// SPDX-License-Identifier: Apache-2.0
#include "appliance/autodiscover/vhost.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <map>

#include "appliance/autodiscover/vmware.h"
#include "lib/clock.h"
#include "lib/file_io.h"
#include "lib/walker.h"
#include "tests/lib/temp_dir.h"

namespace mirador {
namespace {

using namespace std::string_literals;
using testing::HasSubstr;

const std::string uuid_line = "uuid.bios = \"56 4d 7a 1b 2c 3d 4e 5f-60 71 82 93 a4 b5 c6 d7\"\n";
const std::string name_line = "displayName = \"web\"\n";
const std::string os_line = "guestOS = \"other\"\n";

std::string disk_lines(const std::string& at, const std::string& file, const std::string& more = "") {
    return at + ".present = \"TRUE\"\n" + at + ".fileName = \"" + file + "\"\n" + more;
}

const std::string whole = uuid_line + name_line + os_line + disk_lines("scsi0:0", "web.vmdk");

std::string dump(const vhost_record_t& record) {
    char* text = nullptr;
    std::size_t size = 0;
    file_ptr stream(open_memstream(&text, &size));
    vhost_record_dump(record, stream.get());
    stream.reset();
    const std::unique_ptr<char, decltype(&std::free)> owned(text, std::free);
    return {text, size};
}

class vhost_test : public testing::Test {
  protected:
    ~vhost_test() override { walker_end(); }

    // The error of a record made from a text, "" for none.
    std::string error_of(const std::string& text) {
        record_.reset();
        const errdesc_t* e = vhost_record_new(write_file(path_, text), &record_);
        EXPECT_EQ(record_->err != nullptr, e != nullptr);
        EXPECT_STREQ(e == nullptr ? "" : record_->err->string, e == nullptr ? "" : e->string);
        return e == nullptr ? "" : e->string;
    }

    temp_dir_t dir_;
    const std::string path_ = dir_ / "web.vmx";
    std::unique_ptr<vhost_record_t> record_;
    manual_clock_t clock_{1'000'000'000};
};

TEST_F(vhost_test, ARecordTellsWhatTheFileSays) {
    const std::string text =
        whole + "uuid.location = \"56 4D 00\"\nvc.uuid = \"52 31 00 11 22 33 44 55 66\"\n" +
        "workingDir = \"snaps\"\n" + disk_lines("nvme0:0", "fast.vmdk") +
        disk_lines("ide0:0", "/vmfs/volumes/x/old.vmdk", "ide0:0.mode = \"independent-nonpersistent\"\n") +
        disk_lines("ide1:0", "cd.iso", "ide1:0.deviceType = \"cdrom-image\"\n");
    EXPECT_EQ(error_of(text), "");
    EXPECT_EQ(dump(*record_),
              "vhost_record->uuid = 564d7a1b-2c3d-4e5f-6071-8293a4b5c6d7\n"
              "vhost_record->uuid2 = 56 4D 00\n"
              "vhost_record->uuid3 = 52310011-2233-4455-6600-000000000000\n"
              "vhost_record->name = web\nvhost_record->os = other\n"
              "vhost_record->filename = " +
                  path_ + "\nvhost_record->dirname = " + dir_.path() +
                  "\n"
                  "vhost_record->vdiskcount = 3\nvhost_record->workingdir = snaps\n"
                  "vhost_record->vdsk[0].name = web.vmdk\nvhost_record->vdsk[0].snapshot_ok = 1\n"
                  "vhost_record->vdsk[1].name = /vmfs/volumes/x/old.vmdk\n"
                  "vhost_record->vdsk[1].snapshot_ok = 0\n"
                  "vhost_record->vdsk[2].name = fast.vmdk\nvhost_record->vdsk[2].snapshot_ok = 1\n");
    EXPECT_EQ(record_->magic, 0xaaffddccU);
    EXPECT_EQ(record_->type, VHOST_VMWARE);
    EXPECT_EQ(record_->stat.st_size, static_cast<off_t>(text.size()));
    EXPECT_EQ(clock_.slept(), 0);
    vhost_record_free(record_.get());
    EXPECT_EQ(record_->magic, 0U);
    EXPECT_TRUE(record_->vdsk[0].name.empty());
}

TEST_F(vhost_test, TheFirstThingMissingIsTheError) {
    const std::string disk = disk_lines("scsi0:0", "web.vmdk");
    const struct {
        std::string text;
        std::string error;
    } cases[] = {
        {name_line, "invalid uuid for "},
        {"uuid.bios = \"5-6\"\n" + name_line + os_line + disk, "invalid uuid for "},
        {"uuid.bios = \"none\"\n" + name_line + os_line + disk, "invalid uuid for "},
        {"uuid.bios = \"00 00\"\n" + name_line + os_line + disk, "invalid uuid for "},
        {uuid_line + os_line + disk, "invalid name for "},
        {uuid_line + name_line + disk, "invalid operating system for "},
        {uuid_line + name_line + os_line, "no virtual disks for "},
    };
    for (const auto& c : cases)
        EXPECT_EQ(error_of(c.text), c.error + path_);
    EXPECT_EQ(clock_.slept(), 0);
    error_of(whole);
    record_->vdskcount = 2;
    EXPECT_STREQ(vhost_record_validate("p", *record_)->string, "invalid virtual disk 1 for p");
    record_->dirname.clear();
    EXPECT_STREQ(vhost_record_validate("p", *record_)->string, "invalid directory for p");
}

TEST_F(vhost_test, AnUnreadableFileIsTriedTwice) {
    EXPECT_THAT(error_of(""), HasSubstr("no setting in it"));
    EXPECT_EQ(clock_.slept(), 6);
    EXPECT_EQ(record_->filename, path_);
    record_.reset();
    EXPECT_EQ(vhost_record_new(dir_ / "absent.vmx", &record_)->number, ENOENT);
    EXPECT_EQ(clock_.slept(), 12);
}

TEST_F(vhost_test, ThirtyTwoDisksAndNotOneMore) {
    std::string text = uuid_line + name_line + os_line;
    for (int i = 0; i < 32; ++i)
        text += disk_lines("scsi" + std::to_string(i / 15) + ":" + std::to_string(i % 15), std::to_string(i) + ".vmdk");
    EXPECT_EQ(error_of(text), "");
    EXPECT_EQ(record_->vdsk[31].name, "31.vmdk");
    EXPECT_EQ(error_of(text + disk_lines("sata0:0", "32.vmdk")), "more than 32 virtual disks for " + path_);
    EXPECT_EQ(record_->vdskcount, 0);
    EXPECT_EQ(record_->name, "web");
}

TEST_F(vhost_test, TypesByName) {
    for (const char* path : {"a.vmx", "/x/y.vmx", "..vmx"})
        EXPECT_EQ(vhost_get_type(path), VHOST_VMWARE) << path;
    for (const char* path : {".vmx", "vmx", "a.VMX", "a.vmxf", "a.vmtx", ""})
        EXPECT_EQ(vhost_get_type(path), VHOST_UNKNOWN) << path;
    EXPECT_DEATH(static_cast<void>(vhost_record_new("a.vmtx", &record_)), "VHOST_VMWARE");
    for (const char* mode : {"", "persistent", "independent", "nonpersistent"})
        EXPECT_TRUE(vmware_can_take_snapshot(mode)) << mode;
}

TEST_F(vhost_test, DiscoveryFindsEveryVmAndOneBrokenHarmsNoOther) {
    std::vector<std::string> bases;
    for (const char* base : {"ds1", "ds2", "ds3"}) {
        for (int i = 0; i < 5; ++i) {
            const std::string vm = dir_ / base + "/vm" + std::to_string(i);
            std::filesystem::create_directories(vm);
            write_file(vm + "/vm.vmx", whole);
            write_file(vm + "/vm.vmxf", "");
            write_file(vm + "/vm.vmtx", whole);
        }
        bases.push_back(dir_ / base);
    }
    write_file(dir_ / "ds2/vm3/vm.vmx", "\0\0"s);
    write_file(dir_ / "ds3/vm0/vm.vmx", name_line);
    bases.push_back(dir_ / "absent");

    vhost_list_t list;
    testing::internal::CaptureStdout();
    ASSERT_EQ(vhost_auto_discover(bases, &list), nullptr);
    const std::string log = testing::internal::GetCapturedStdout();
    std::map<std::string, std::string> errors;  // by file
    list_iter(list, [&](const std::unique_ptr<vhost_record_t>& record) {
        errors[record->filename.substr(dir_.path().size())] = record->err ? record->err->string : "";
        return true;
    });
    EXPECT_EQ(list_count(list), 15);
    EXPECT_EQ(errors.size(), 15U);
    for (const auto& [path, error] : errors) {
        const bool broken = path == "/ds2/vm3/vm.vmx" || path == "/ds3/vm0/vm.vmx";
        EXPECT_EQ(!error.empty(), broken) << path << error;
        EXPECT_EQ(log.find(dir_.path() + path) != std::string::npos, broken);
    }
}

}  // namespace
}  // namespace mirador
