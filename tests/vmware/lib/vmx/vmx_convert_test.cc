// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmx/vmx_convert.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <string_view>
#include <utility>

#include "tests/lib/error_number.h"
#include "tests/lib/temp_dir.h"

namespace mirador {
namespace {

using namespace std::string_literals;
using testing::HasSubstr;

// What becomes of a file at <directory>/vmfs/volumes/ds1/vm/vm.vmx; the conversion's paths lie below that directory
// unless they are relative.
class vmx_convert_test : public testing::Test {
  protected:
    std::string converted(const std::string& text, const vmx_conversion_t& conversion) {
        vmx_conversion_t below;
        for (const auto& [path, name] : conversion)
            below.emplace_back(path.starts_with('/') ? root_.path() + path : path, name);
        std::filesystem::create_directories(root_ / "vmfs/volumes/ds1/vm");
        write_file(vmx_, text);
        const errdesc_t* e = vmx_copy_convert(vmx_, copy_, below);
        return e == nullptr ? read_file(copy_) : e->string;
    }

    temp_dir_t root_;
    const std::string vmx_ = root_ / "vmfs/volumes/ds1/vm/vm.vmx";
    const std::string copy_ = root_ / "cache/ds1/vm/vm.vmx";
};

TEST_F(vmx_convert_test, OnlyTheReferencesChange) {
    const std::string before =
        "#!/usr/bin/vmware\r\n"
        ".encoding = \"UTF-8\"\r\n"
        "displayName = \"vm-000002.vmdk\"\r\n"
        "scsi0:0.present = \"TRUE\"\r\n"
        "  SCSI0:0.FileName   =   \"vm-000002.vmdk\"   # head\r\n"
        "scsi0:1.fileName = data-000001.vmdk\n"
        "scsi0:2.fileName = \"left.vmdk\"\n"
        "scsi0:3.fileName = \"open-000001.vmdk\r\n"
        "ide1:0.deviceType = \"cdrom-image\"\n"
        "ide1:0.fileName = \"cd.vmdk\"\n"
        "scsi0:0.redo = \"vm-000002.vmdk\"\n"
        "broken line\n"
        "sched.swap.derivedName = \"/vmfs/volumes/ds1/vm/vm.vswp\"";
    std::string after = before;
    for (const auto& [from, to] : {std::pair{"\"vm-000002.vmdk\"   # head", "\"vm.vmdk\"   # head"},
                                   {"data-000001.vmdk", "\"data(1).vmdk\""},
                                   {"\"open-000001.vmdk", "\"open.vmdk\""}})
        after.replace(after.find(from), std::string_view(from).size(), to);
    const std::string tail = "\n\0\0scsi0:0.fileName = \"vm-000002.vmdk\""s;
    EXPECT_EQ(converted(before + tail, {{"/vmfs/volumes/ds1/vm/vm-000002.vmdk", "vm.vmdk"},
                                        {"data-000001.vmdk", "data(1).vmdk"},
                                        {"/vmfs/volumes/ds1/vm/open-000001.vmdk", "open.vmdk"},
                                        {"/vmfs/volumes/ds1/vm/cd.vmdk", "not this.vmdk"}}),
              after + tail);
}

TEST_F(vmx_convert_test, NoReferenceTakesAnothersName) {
    const std::string here = "scsi0:0.fileName = \"vm.vmdk\"\n";
    const std::string there = "scsi0:1.fileName = \"/vmfs/volumes/5f0a-2/vm/vm.vmdk\"\n";
    const struct {
        std::string text;
        vmx_conversion_t conversion;
        std::string copy;
    } cases[] = {
        // The other datastore goes by its uuid in the file and by its label in the list.
        {here + there,
         {{"/vmfs/volumes/ds2/vm/vm.vmdk", "vm(1).vmdk"}, {"/vmfs/volumes/ds1/vm/vm.vmdk", "vm.vmdk"}},
         "scsi0:0.fileName = \"vm.vmdk\"\nscsi0:1.fileName = \"vm(1).vmdk\"\n"},
        // Both go by names that are not theirs: nobody can tell which is which, so both stay.
        {here + there,
         {{"/vmfs/volumes/a/vm/vm.vmdk", "one.vmdk"}, {"/vmfs/volumes/b/vm/vm.vmdk", "two.vmdk"}},
         here + there},
        // One of two disks of the same name is not exported.
        {here + there, {{"/vmfs/volumes/ds1/vm/vm.vmdk", "vm(1).vmdk"}}, "scsi0:0.fileName = \"vm(1).vmdk\"\n" + there},
        // The head lies in a working directory that the file's relative name does not tell.
        {"scsi0:0.fileName = \"vm-000001.vmdk\"\n", {{"/vmfs/volumes/ds3/snaps/vm-000001.vmdk", "vm.vmdk"}}, here},
        {"scsi0:0.fileName = \"../vm/./vm-000001.vmdk\"\n", {{"/vmfs/volumes/ds1/vm/vm-000001.vmdk", "vm.vmdk"}}, here},
        {here, {{"/vmfs/volumes/ds1/vm/other.vmdk", "x.vmdk"}}, here},
        {here, {}, here},
        // The same disk listed twice, and a key that stands twice.
        {here, {{"vm.vmdk", "x.vmdk"}, {"vm.vmdk", "x.vmdk"}}, "scsi0:0.fileName = \"x.vmdk\"\n"},
        {"scsi0:0.fileName = \"old.vmdk\"\n" + here,
         {{"old.vmdk", "x.vmdk"}, {"vm.vmdk", "y.vmdk"}},
         "scsi0:0.fileName = \"old.vmdk\"\nscsi0:0.fileName = \"y.vmdk\"\n"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(converted(c.text, c.conversion), c.copy) << c.text;
}

TEST_F(vmx_convert_test, NamesAreWrittenInTheFilesEncodingAndEscaped) {
    const std::string line = "scsi0:0.fileName = \"d|7C-000001.vmdk\"\n";
    const vmx_conversion_t odd = {{"/vmfs/volumes/ds1/vm/d|-000001.vmdk", "caf\xc3\xa9 |\"#.vmdk"}};
    EXPECT_EQ(converted(line, odd), "scsi0:0.fileName = \"caf\xc3\xa9 |7C|22|23.vmdk\"\n");
    const std::string latin = ".encoding = \"windows-1252\"\n";
    EXPECT_EQ(converted(latin + line, odd), latin + "scsi0:0.fileName = \"caf\xe9 |7C|22|23.vmdk\"\n");
    EXPECT_THAT(converted(latin + line, {{"d|-000001.vmdk", "\xe4\xb8\xad.vmdk"}}),
                HasSubstr("cannot be written in the encoding of " + vmx_));
}

TEST_F(vmx_convert_test, TheCopyAppearsWholeOrNotAtAll) {
    const std::string text = "scsi0:0.fileName = \"vm-000001.vmdk\"\n";
    ASSERT_EQ(converted(text, {}), text);
    const timespec times[] = {{1'000'000'001, 5}, {1'000'000'002, 7}};
    ASSERT_EQ(utimensat(AT_FDCWD, vmx_.c_str(), times, 0), 0);
    ASSERT_EQ(chmod(vmx_.c_str(), 0755), 0);
    ASSERT_EQ(vmx_copy_convert(vmx_, copy_, {{"vm-000001.vmdk", "vm.vmdk"}}), nullptr);
    struct stat st {};
    ASSERT_EQ(stat(copy_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mtim.tv_sec, 1'000'000'002);
    EXPECT_EQ(st.st_mtim.tv_nsec, 7);
    EXPECT_EQ(st.st_mode & 07777U, 0755U);

    // A failure leaves nothing beside the copy of before.
    const std::string directory = root_ / "taken";
    ASSERT_TRUE(std::filesystem::create_directories(directory + "/copy"));
    ASSERT_EQ(number_of(vmx_copy_convert(vmx_, directory + "/copy", {})), EISDIR);
    const std::filesystem::directory_iterator beside(directory);
    EXPECT_EQ(std::distance(begin(beside), end(beside)), 1);
    const auto refuse = [](int fd) { return fd < 0 ? nullptr : errdesc_set(EPERM); };
    EXPECT_EQ(vmx_copy_convert(vmx_, copy_, {}, refuse)->number, EPERM);
    EXPECT_EQ(read_file(copy_), "scsi0:0.fileName = \"vm.vmdk\"\n");
    EXPECT_EQ(vmx_copy_convert(root_ / "absent.vmx", copy_, {})->number, ENOENT);
    EXPECT_THAT(vmx_copy_convert(vmx_, vmx_ + "/x/vm.vmx", {})->string, HasSubstr("Cannot make directory"));
}

}  // namespace
}  // namespace mirador
