// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include <cstdio>
#include <memory>
#include <string>

#include "tests/lib/temp_dir.h"
#include "tests/support/record_bytes.h"
#include "vmware/lib/vmdk/vmdk_parse.h"

namespace mirador {
namespace {

using testing::HasSubstr;
using namespace std::string_literals;

std::string dump(const vmdkdesc_t* desc) {
    return printed([&](std::FILE* stream) { vmdk_dump_disk_desc(desc, stream); });
}

TEST(descriptor, EveryLineFillsItsField) {
    const std::string text =
        "# Disk DescriptorFile\n"
        "version=2\n"
        "encoding=\"UTF-8\"\n"
        "CID=0badcafe\n"
        "parentCID=12345678\n"
        "createType=\"vmfsSparse\"\n"
        "parentFileNameHint=\"base disk.vmdk\"\n"
        "\n"
        "RW 100 VMFSSPARSE \"a-delta.vmdk\"\n"
        "RDONLY 50 FLAT \"b-flat.vmdk\" 128\n"
        "NOACCESS 7 VMFSRDM \"c-rdm.vmdk\"\n"
        "changeTrackPath=\"a-ctk.vmdk\"\n"
        "ddb.virtualHWVersion = \"14\"\n"
        "ddb.geometry.biosCylinders = \"5\"\n"
        "ddb.geometry.cylinders = \"1024\"\n"
        "ddb.geometry.heads = \"255\"\n"
        "ddb.geometry.sectors = \"63\"\n"
        "ddb.adapterType = \"lsilogic\"\n"
        "ddb.toolsVersion = \"2147483647\"\n"
        "ddb.encoding = \"UTF-8\"\n"
        "ddb.uuid = \"60 00 C2 9e 01 02 03 04-05 06 07 08 09 0a 0b 0c\"\n"
        "ddb.longContentID = \"0123456789abcdef0123456789abcdef\"\n"
        "ddb.thinProvisioned = \"1\"\n";
    vmdkdesc_t desc;
    ASSERT_EQ(vmdk_parse_file_contents3(text, &desc), nullptr);
    EXPECT_TRUE(desc.thin_provisioned);
    EXPECT_EQ(dump(&desc),
              "---------------dump------------\n"
              "vmdkdesc.version = 2\nvmdkdesc.cid = badcafe\nvmdkdesc.pcid = 12345678\nvmdkdesc.createtype = 2\n"
              "vmdkdesc.filename = (null)\nvmdkdesc.parentfilenamehint = base disk.vmdk\n"
              "vmdkdesc.change_track_path = \"a-ctk.vmdk\"\nvmdkdesc.extentdesccount = 3\n"
              "vmdkdesc.extentdesc.version = 0\nvmdkdesc.extentdesc.mode = 0\nvmdkdesc.extentdesc.extentsize = 100\n"
              "vmdkdesc.extentdesc.extentoffset = 0\nvmdkdesc.extentdesc.extenttype = 32\n"
              "vmdkdesc.extentdesc.extentname = a-delta.vmdk\n"
              "vmdkdesc.extentdesc.version = 128\nvmdkdesc.extentdesc.mode = 1\nvmdkdesc.extentdesc.extentsize = 50\n"
              "vmdkdesc.extentdesc.extentoffset = 100\nvmdkdesc.extentdesc.extenttype = 2\n"
              "vmdkdesc.extentdesc.extentname = b-flat.vmdk\n"
              "vmdkdesc.extentdesc.version = 0\nvmdkdesc.extentdesc.mode = 2\nvmdkdesc.extentdesc.extentsize = 7\n"
              "vmdkdesc.extentdesc.extentoffset = 150\nvmdkdesc.extentdesc.extenttype = 64\n"
              "vmdkdesc.extentdesc.extentname = c-rdm.vmdk\n"
              "vmdkdesc.db.hwversion = 14\nvmdkdesc.db.cylinders = 1024\nvmdkdesc.db.heads = 255\n"
              "vmdkdesc.db.sectors = 63\nvmdkdesc.db.adaptertype = 2\nvmdkdesc.db.toolsversion = 2147483647\n"
              "vmdkdesc.db.uuid = \"60 00 C2 9e 01 02 03 04-05 06 07 08 09 0a 0b 0c\"\n"
              "vmdkdesc.db.longcontentid = \"0123456789abcdef0123456789abcdef\"\n");
    EXPECT_EQ(dump(nullptr), "vmdkdesc is NULL");

    // A record is emptied before it is filled again.
    ASSERT_EQ(vmdk_parse_file_contents3("\n", &desc), nullptr);
    EXPECT_EQ(dump(&desc), dump(std::make_unique<vmdkdesc_t>().get()));
}

TEST(descriptor, EnumeratedWordsInAnyCase) {
    const struct {
        const char* line;
        const char* dumped;
    } cases[] = {
        {"CREATETYPE=\"MONOLITHICFLAT\"", "createtype = 3\n"},
        {"createType=\"vmfsRawDeviceMap\"", "createtype = 10\n"},
        {"createType=\"seSparse\"", "createtype = 13\n"},
        {"rw 1 sparse \"x\"", "extenttype = 4\n"},
        {"RW 1 ZERO \"x\"", "extenttype = 8\n"},
        {"RW 1 VMFSRAW \"x\"", "extenttype = 128\n"},
        {"RW 1 SESPARSE \"x\"", "extenttype = 256\n"},
        {"ddb.adapterType = \"BusLogic\"", "adaptertype = 1\n"},
    };
    for (const auto& c : cases) {
        vmdkdesc_t desc;
        ASSERT_EQ(vmdk_parse_file_contents3(c.line + "\n"s, &desc), nullptr) << c.line;
        EXPECT_THAT(dump(&desc), HasSubstr(c.dumped)) << c.line;
    }
}

TEST(descriptor, WhatALineSaysAndWhatIsPassedOver) {
    const struct {
        std::string text;
        const char* dumped;  // of the record
    } cases[] = {
        {"cid = FFFFFFFF # comment = \"x\n", "cid = ffffffff\n"},
        {"CID=ddb\n", "cid = ddb\n"},
        // Larger than the field.
        {"CID=7\nCID=1ffffffff\n", "cid = 7\n"},
        {"version=4294967296\n", "version = 4294967295\n"},
        {"RW 99999999999999999999 FLAT \"a\"\n", "extentsize = 18446744073709551615\n"},
        {"RW 1 FLAT \"a\" 4294967296\n", "extentdesc.version = 4294967295\n"},
        // Lines that do not fit, alone and before one that does.
        {"version=1\r\nCID=7\r\nRW 1 FLAT \"a\"\r\n", "version = 0\n"},
        {"RW 1 FLAT \"a\"\r\n", "extentdesccount = 0\n"},
        {"\r\n\"\"\n\"open\n-\n=\n=\nversion=3\n", "version = 3\n"},
        {"version=3\nversion=2x\nversions=2\nversion 2\nversion=-2\nversion=\"2\"\nversion=2 2\n", "version = 3\n"},
        {"version=3\nversion=\n2\n", "version = 3\n"},
        {"ddb.toolsVersion = \"1\"\nddb.toolsVersion = 5\n", "toolsversion = 1\n"},
        {"RW 1 FLAT \"123\"\nRW 1 FLAT \"vmfs\"\nRW 1 ZERO\nRW 1 FLAT a\n", "extentdesccount = 0\n"},
        {"RW 1 FLAT \"a\" 0 7\nRW FLAT \"a\"\nRW 1a FLAT \"a\"\n", "extentdesccount = 0\n"},
        {"RW 1 OTHER \"x\"\nRW 2 FLAT \"b\"\n", "extentsize = 2\n"},
        // Items that need no line end of their own.
        {"parentFileNameHint=\"x\" RW 5 FLAT \"a\"\n", "extentsize = 5\n"},
        {"ddb.uuid = \"u\"version=3\n", "version = 3\n"},
        {"parentFileNameHint=\"kept\" rubbish\nversion=3\n", "parentfilenamehint = kept\n"},
        // Quoted text as it stands.
        {"parentFileNameHint=\"a#b = \t\xc3\xa4\"\n", "parentfilenamehint = a#b = \t\xc3\xa4\n"},
        {"ddb.uuid = \"" + std::string(80, 'u') + "\"\n",
         "uuid = \"uuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuu\n"},
        // A zero byte ends the text.
        {"version=3\n\0version=4\n"s, "version = 3\n"},
    };
    const temp_dir_t temp;
    for (const auto& c : cases) {
        vmdkdesc_t desc;
        ASSERT_EQ(vmdk_parse_file_contents3(c.text, &desc), nullptr) << c.text;
        EXPECT_THAT(dump(&desc), HasSubstr(c.dumped)) << c.text;
        vmdkdesc_t from_file;
        ASSERT_EQ(vmdk_parse_file_contents(write_file(temp / "x.vmdk", c.text), &from_file), nullptr) << c.text;
        EXPECT_EQ(dump(&from_file), dump(&desc));
    }
}

TEST(descriptor, ATextAtByte512IsTheSecondAttempt) {
    const temp_dir_t temp;
    const auto padded = [](std::string text) {
        text.resize(sector_size);
        return text;
    };
    vmdkdesc_t desc;
    // The header of a sparse extent holds line ends; what follows the text's padding is no text.
    const std::string header = "KDMV\x01\0\0\0 \n \r\n"s;
    ASSERT_EQ(
        vmdk_parse_file_contents(write_file(temp / "x", padded(header) + padded("version=1\nRW 8 SPARSE \"x\"\n") +
                                                            "RW 9 FLAT \"guest\"\n\xff"),
                                 &desc),
        nullptr);
    EXPECT_EQ(desc.version, 1U);
    ASSERT_EQ(desc.extentdesccount(), 1U);

    // What the first attempt stored stays.
    ASSERT_EQ(vmdk_parse_file_contents(
                  write_file(temp / "x", padded("CID=7\nRW 10 FLAT \"a\"\nx") + "RW 20 FLAT \"b\"\n"), &desc),
              nullptr);
    EXPECT_EQ(desc.cid, 7U);
    ASSERT_EQ(desc.extentdesccount(), 2U);
    EXPECT_EQ(desc.extentdesc[1]->extentoffset, 10U);
}

}  // namespace
}  // namespace mirador
