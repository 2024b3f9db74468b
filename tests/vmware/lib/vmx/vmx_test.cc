// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmx/vmx.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cerrno>

#include "tests/lib/temp_dir.h"
#include "tests/support/record_bytes.h"

namespace mirador {
namespace {

using namespace std::string_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

vmxdesc_t parsed(const std::string& text, const std::string& path = "/vmfs/volumes/ds/vm/vm.vmx") {
    vmxdesc_t desc;
    EXPECT_EQ(vmx_parse_text(path, text, &desc), nullptr) << text;
    return desc;
}

std::string dump(const vmxdesc_t& desc) {
    return printed([&](std::FILE* stream) { vmx_dump(desc, stream); });
}

// "scsi0:1 file", in order.
std::vector<std::string> disks(const vmxdesc_t& desc) {
    std::vector<std::string> result;
    for (const auto& [address, device] : vmx_disks(desc))
        result.push_back(vmx_address_str(address) + " " + device->filename);
    return result;
}

// As a host writes one, with the line ends given.
std::string host_file(const std::string& end) {
    const char* const lines[] = {
        ".encoding = \"UTF-8\"",
        "config.version = \"8\"",
        "virtualHW.version = \"19\"",
        "displayName = \"web |22front|22 |7C caf\xc3\xa9\"",
        "guestOS = \"ubuntu-64\"",
        "uuid.bios = \"56 4d 7a 1b 2c 3d 4e 5f-60 71 82 93 a4 b5 c6 d7\"",
        "uuid.location = \"56 4d 00 11 22 33 44 55-66 77 88 99 aa bb cc dd\"",
        "vc.uuid = \"52 31 00 11 22 33 44 55-66 77 88 99 aa bb cc dd\"",
        "workingDir = \"/vmfs/volumes/ds2/snaps\"",
        "scsi0.virtualDev = \"pvscsi\"",
        "scsi0.present = \"TRUE\"",
        "scsi0:0.deviceType = \"scsi-hardDisk\"",
        "scsi0:0.fileName = \"web-000002.vmdk\"",
        "scsi0:0.ctkEnabled = \"TRUE\"",
        "scsi0:0.present = \"TRUE\"",
        "scsi0:1.deviceType = \"scsi-hardDisk\"",
        "scsi0:1.fileName = \"/vmfs/volumes/5f0a/web/data.vmdk\"",
        "scsi0:1.mode = \"independent-persistent\"",
        "scsi0:1.present = \"TRUE\"",
        "sata0.present = \"TRUE\"",
        "sata0:0.deviceType = \"cdrom-image\"",
        "sata0:0.fileName = \"/vmfs/volumes/5f0a/iso/install.iso\"",
        "sata0:0.present = \"TRUE\"",
        "floppy0.present = \"FALSE\"",
        "ctkEnabled = \"TRUE\"",
        "guestinfo.userdata = \"I2Nsb3VkLWNvbmZpZw==\"",
    };
    std::string text;
    for (const char* line : lines)
        text += line + end;
    return text;
}

TEST(vmx, AHostsFileWithEitherLineEnd) {
    const vmxdesc_t desc = parsed(host_file("\n"));
    EXPECT_EQ(desc.displayname, "web \"front\" | caf\xc3\xa9");
    EXPECT_EQ(desc.guestos, "ubuntu-64");
    EXPECT_THAT(desc.uuid_bios, StartsWith("56 4d 7a"));
    EXPECT_THAT(desc.uuid_location, StartsWith("56 4d 00"));
    EXPECT_THAT(desc.vc_uuid, StartsWith("52 31"));
    EXPECT_EQ(vmx_working_dir(desc), "/vmfs/volumes/ds2/snaps");
    EXPECT_EQ(desc.dirname, "/vmfs/volumes/ds/vm");
    EXPECT_TRUE(desc.ctk_enabled);
    EXPECT_FALSE(desc.is_template);
    EXPECT_EQ(desc.lost_lines, 0U);
    EXPECT_THAT(disks(desc), ElementsAre("scsi0:0 web-000002.vmdk", "scsi0:1 /vmfs/volumes/5f0a/web/data.vmdk"));
    EXPECT_TRUE(vmx_disks(desc)[0].second->ctk_enabled);
    EXPECT_FALSE(vmx_disks(desc)[1].second->ctk_enabled);
    EXPECT_EQ(vmx_disks(desc)[1].second->mode, "independent-persistent");

    EXPECT_EQ(dump(parsed(host_file("\r\n"))), dump(desc));
    EXPECT_EQ(dump(parsed("\xef\xbb\xbf" + host_file("\n"))), dump(desc));
    EXPECT_EQ(dump(parsed(host_file("\n") + "\0\0\0scsi0:5.present = \"TRUE\"\n"s)), dump(desc));
}

TEST(vmx, WhatALineSays) {
    const struct {
        std::string text;
        std::string name;
        unsigned lost = 0;
    } cases[] = {
        {"displayName = \"a\"", "a"},
        {"DISPLAYNAME=\"a\"\n", "a"},
        {" \tdisplayname\t =  \"a\"  # said so\n", "a"},
        {"displayName = \"a # b = c\"\n", "a # b = c"},
        {"displayName = a b # c\r\n", "a b"},
        {"displayName = \"open\r\nguestOS = \"x\"\n", "open"},
        {"displayName = \"a\"\ndisplayName = \"b\"\n", "b"},  // the last one
        {"# displayName = \"no\"\n#!/usr/bin/vmware\nx=\"1\"\n", ""},
        {"displayName = \"|4\"\n", "|4"},
        {"displayName = \"|4G|zz|41|4a\"\n", "|4G|zzAJ"},
        {"displayName = \"|00|0A\"\n", "|00\n"},
        {"no setting\n= \"x\"\n\"quoted\" = \"x\"\ndisplayName = \"a\"\n", "a", 3},
        {".displayName = \"b\"\ndisplayNames = \"c\"\ndisplayName.x = \"d\"\nx=1", ""},
    };
    for (const auto& c : cases) {
        const vmxdesc_t desc = parsed(c.text);
        EXPECT_EQ(desc.displayname, c.name) << c.text;
        EXPECT_EQ(desc.lost_lines, c.lost) << c.text;
    }
}

TEST(vmx, TextsAreUtf8WhateverTheFileIsIn) {
    const struct {
        const char* encoding;
        const char* value;
        const char* name;
    } cases[] = {
        {".encoding = \"UTF-8\"\n", "caf\xc3\xa9", "caf\xc3\xa9"},
        {".encoding = \"windows-1252\"\n", "caf\xe9 \x80", "caf\xc3\xa9 \xe2\x82\xac"},
        {"encoding = \"ISO-8859-2\"\n", "\xb3", "\xc5\x82"},
        // The second byte of a character may look like an escape, a backslash or nothing at all.
        {".encoding = \"Shift_JIS\"\n",
         "\x83\x7c"
         "22|22",
         "\xe3\x83\x9d"
         "22\""},
        {".encoding = \"windows-932\"\n", "\x83\x5c\x87\x40", "\xe3\x82\xbd\xe2\x91\xa0"},
        // Undeclared, unknown or wrongly declared: what can be made of it.
        {"", "caf\xc3\xa9", "caf\xc3\xa9"},
        {"", "caf\xe9", "caf\xc3\xa9"},
        {".encoding = \"ISO-2022-CN-EXT\"\n", "caf\xe9", "caf\xe9"},
        {".encoding = \"UTF-8\"\n", "caf\xe9", "caf\xe9"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(parsed("displayName = \""s + c.value + "\"\n" + c.encoding).displayname, c.name)
            << c.encoding << c.value;
}

TEST(vmx, OnlyAttachedDisksAreDisks) {
    const auto device = [](const std::string& at, const std::string& more) {
        return at + ".fileName = \"d.vmdk\"\n" + more;
    };
    const std::string here = "scsi0:0.present = \"TRUE\"\n";
    const struct {
        std::string text;
        bool disk;
    } cases[] = {
        {device("scsi0:0", here), true},
        {device("SCSI0:0", "Scsi0:0.PRESENT = \"true\"\n"), true},
        {device("scsi0:0", "scsi0:0.present = \"FALSE\"\n"), false},
        {device("scsi0:0", ""), false},
        {device("scsi0:0", here + "scsi0.present = \"FALSE\"\n"), false},
        {device("scsi0:0", here + "scsi1.present = \"FALSE\"\nsata0.present = \"FALSE\"\n"), true},
        {device("scsi0:0", here + "scsi0:0.deviceType = \"atapi-cdrom\"\n"), false},
        {device("scsi0:0", here + "scsi0:0.deviceType = \"something new\"\n"), true},
        {here + "scsi0:0.fileName = \"auto detect\"\n", false},
        {here + "scsi0:0.fileName = \"\"\n", false},
        {here + "scsi0:0.fileName = \"old.dsk\"\nscsi0:0.deviceType = \"scsi-hardDisk\"\n", true},
        {device("scsi15:63", "scsi15:63.present = \"TRUE\"\n"), true},
        {device("scsi16:0", "scsi16:0.present = \"TRUE\"\n"), false},
        {device("scsi0:64", "scsi0:64.present = \"TRUE\"\n"), false},
        {device("scsi99999999999999999999:0", "x=1\n"), false},
        {device("usb0:0", "usb0:0.present = \"TRUE\"\n"), false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(disks(parsed(c.text)).size(), c.disk ? 1U : 0U) << c.text;
}

TEST(vmx, DisksOfAllBusesInOrder) {
    std::string text;
    for (const char* at : {"nvme0:0", "sata0:0", "ide0:0", "scsi1:0", "scsi0:10", "scsi0:2", "scsi0:0"})
        text += at + ".present = \"TRUE\"\n"s + at + ".fileName = \"" + at + ".vmdk\"\n";
    EXPECT_THAT(disks(parsed(text)), ElementsAre("scsi0:0 scsi0:0.vmdk", "ide0:0 ide0:0.vmdk", "sata0:0 sata0:0.vmdk",
                                                 "nvme0:0 nvme0:0.vmdk", "scsi0:2 scsi0:2.vmdk",
                                                 "scsi0:10 scsi0:10.vmdk", "scsi1:0 scsi1:0.vmdk"));
}

TEST(vmx, WhatIsNoConfigurationIsRefused) {
    const temp_dir_t dir;
    const std::string fifo = dir / "fifo.vmx";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string path = dir / "vm.vmx";
    const auto refusal = [&](const std::string& file) {
        vmxdesc_t desc = parsed("displayName = \"before\"");
        const errdesc_t* e = vmx_open(file, &desc);
        EXPECT_EQ(desc.magic == vmxdesc_t::magic_value, e == nullptr);
        EXPECT_THAT(desc.displayname, testing::IsEmpty());  // nothing of the description before
        return e == nullptr ? "read" : std::string(e->string);
    };
    for (const std::string& text : {""s, "\n\r\n# nothing\n"s, "\0\0\0\0"s,
                                    "\x7f"
                                    "ELF\2\1\1\0"s,
                                    "some text\n"s})
        EXPECT_EQ(refusal(write_file(path, text)), "VMX file refused, no setting in it: " + path) << text;
    EXPECT_THAT(refusal(write_file(path, "displayName = \"" + std::string(4096, 'n') + "\"\n")),
                HasSubstr("the value of displayname is too long"));
    EXPECT_EQ(refusal(write_file(path, "guestinfo.data = \"" + std::string(1 << 20, 'n') + "\"\n")), "read");
    EXPECT_EQ(refusal(write_file(path, "a=1\n" + std::string(vmx_max_text - 3, '#'))),
              "VMX file refused, too long: " + path);
    EXPECT_EQ(refusal(fifo), "VMX file refused, not a regular file: " + fifo);
    EXPECT_EQ(refusal(dir.path()), "VMX file refused, not a regular file: " + dir.path());
    EXPECT_THAT(refusal(dir / "absent"), HasSubstr("absent: No such file or directory"));
}

}  // namespace
}  // namespace mirador
