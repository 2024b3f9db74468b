// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/cor_vdsk_header.h"

#include <gmock/gmock.h>

#include "appliance/lib/vdsk_header_build.h"
#include "tests/support/record_bytes.h"

namespace mirador {
namespace {

using namespace std::string_literals;
using testing::HasSubstr;

vdsk_header_input_t input() {
    return {
        .cid = 0xfffffffe,
        .createtype = 4,
        .extent_count = 2,
        .thin_provisioned = true,
        .change_tracking = true,
        .disk_uuid = "\"60 00 C2 91 a1 b2 c3 d4-e5 f6 07 18 29 3a 4b 5c\"",
        .path = "/vmfs/volumes/4f5e6d7c-8b9a0b1c-2d3e-001122334455/dir/vm one/disk-flat.vmdk",
        .vm_uuid = "564d7a1b-2c3d-4e5f-6071-8293a4b5c6d7",
        .hv_name = "esx1.example",
        .size = 4'294'967'296 + 511,
        .vm_name = "vm one",
        .change_id = "52 de c0 d9 b9 43 9d 10-61 5c 2e 27 f7 5f b7 c9/70000",
        .snapshot_time = 1'600'000'001,
    };
}

// The record of input(), field by field where each stands on disk.
record_bytes_t golden_bytes() {
    record_bytes_t b(512);
    b.text(0, "KVDH").number(4, 1, 2).number(5, 1, 1).number(6, 4, 0xfffffffe).number(10, 4, 8'388'608);
    b.number(14, 1, 32 + 8 + 2 + 1).number(15, 1, 4);
    b.text(16, "\x60\x00\xc2\x91\xa1\xb2\xc3\xd4\xe5\xf6\x07\x18\x29\x3a\x4b\x5c"s);
    b.text(32, "\x56\x4d\x7a\x1b\x2c\x3d\x4e\x5f\x60\x71\x82\x93\xa4\xb5\xc6\xd7");
    b.text(48, "\x4f\x5e\x6d\x7c\x8b\x9a\x0b\x1c\x2d\x3e\x00\x11\x22\x33\x44\x55"s);
    b.text(64, "\x52\xde\xc0\xd9\xb9\x43\x9d\x10\x61\x5c\x2e\x27\xf7\x5f\xb7\xc9");
    b.number(80, 4, 70000).number(84, 4, 1'600'000'001);
    b.text(88, "dir/vm one\0\0esx1.example\0vm one\0"s).text(508, "KVDH");
    return b;
}

std::string dumped(const record_bytes_t& b) {
    return printed([&](std::FILE* stream) { dump_cor_vdsk_header(b.as<cor_vdsk_header_t>(), stream); });
}

TEST(vdsk_header_build, RecordHasTheLayout) {
    EXPECT_EQ(bytes_of(*vdsk_header_build(input())), golden_bytes().bytes());
}

TEST(vdsk_header_build, PathGivesDatastoreAndDirectory) {
    const char* const id = "4f5e6d7c-8b9a-0b1c-2d3e-001122334455";
    const char* const none = "00000000-0000-0000-0000-000000000000";
    struct {
        const char* path;
        const char* ds_uuid;
        const char* directory;
    } const cases[] = {
        {"/vmfs/volumes/4f5e6d7c-8b9a0b1c-2d3e-001122334455/a/b/d-flat.vmdk", id, "a/b"},
        {"/vmfs/volumes/4f5e6d7c-8b9a0b1c-2d3e-001122334455/d-flat.vmdk", id, ""},
        {"/vmfs/volumes/4f5e6d7c-8b9a0b1c-2d3e-001122334455", id, ""},
        {"/vmfs/volumes/", none, ""},
        {"/vmfs/volumes/datastore1/vm/d-flat.vmdk", none, "vm"},
        {"/vmfs.direct/volumes/4f5e6d7c-8b9a0b1c-2d3e-001122334455/vm/d-flat.vmdk", none, ""},
        {"", none, ""},
    };
    for (const auto& c : cases) {
        vdsk_header_input_t in = input();
        in.path = c.path;
        const auto h = vdsk_header_build(in);
        std::string_view directory;
        EXPECT_TRUE(get_vmdk_variable_strings(*h, &directory, nullptr, nullptr, nullptr));
        EXPECT_EQ(directory, c.directory) << c.path;
        EXPECT_EQ(uuid_value_to_str(h->ds_uuid), c.ds_uuid) << c.path;
    }
}

TEST(vdsk_header_build, OddValues) {
    vdsk_header_input_t in = input();
    in.size = (std::int64_t{1} << 41) + 1024;  // 2 TiB and two sectors
    in.change_id = "52dec0d9b9439d10615c2e27f75fb7c9";
    in.vm_uuid = "5-6";
    in.vm_name = std::string(1000, 'v');
    const auto h = vdsk_header_build(in);
    EXPECT_EQ(std::uint32_t{h->size}, 2U);
    EXPECT_EQ(uuid_value_to_str(h->change_id), "52dec0d9-b943-9d10-615c-2e27f75fb7c9");
    EXPECT_EQ(cor_vdsk_change_suffix(*h), 0U);
    EXPECT_EQ(h->vm_uuid, cor_uuid_t{});
    EXPECT_TRUE(is_cor_vdsk_header(*h));
}

// Texts of given lengths through the record and back. The area of version 2 has 420 bytes.
TEST(cor_vdsk_header, RoomOfTheVariableStrings) {
    struct {
        std::array<std::size_t, 4> lengths;
        bool stored;  // what storing says
        std::array<std::size_t, 4> read;
        bool complete;  // what reading says
    } const cases[] = {
        {{10, 0, 5, 7}, true, {10, 0, 5, 7}, true},           {{416, 0, 0, 0}, true, {416, 0, 0, 0}, true},
        {{416, 0, 0, 1}, true, {416, 0, 0, 1}, true},  // the last text has lost its terminator, not more
        {{416, 0, 1, 1}, true, {416, 0, 1, 0}, false},        {{419, 0, 0, 0}, true, {419, 0, 0, 0}, false},
        {{420, 0, 0, 0}, true, {420, 1, 1, 1}, false},        {{421, 0, 0, 0}, false, {420, 1, 1, 1}, false},
        {{200, 200, 19, 2}, false, {200, 200, 18, 1}, false}, {{5000, 5000, 5000, 5000}, false, {420, 1, 1, 1}, false},
    };
    for (const auto& c : cases) {
        const std::string texts[4] = {std::string(c.lengths[0], 'a'), std::string(c.lengths[1], 'b'),
                                      std::string(c.lengths[2], 'c'), std::string(c.lengths[3], 'd')};
        SCOPED_TRACE(testing::PrintToString(c.lengths));
        const auto h = new_cor_vdsk_header();
        EXPECT_EQ(
            set_vmdk_variable_strings(h.get(), texts[0].c_str(), texts[1].c_str(), texts[2].c_str(), texts[3].c_str()),
            c.stored);
        EXPECT_TRUE(is_cor_vdsk_header(*h));
        std::array<std::string_view, 4> read;
        EXPECT_EQ(get_vmdk_variable_strings(*h, &read[0], &read[1], &read[2], &read[3]), c.complete);
        for (std::size_t i = 0; i < 4; i++)
            EXPECT_EQ(read[i].size(), c.read[i]) << i;
    }
}

TEST(cor_vdsk_header, DumpOfBothVersions) {
    setenv("TZ", "UTC", 1);
    tzset();
    const std::string version_2 =
        "type: VMDK\n"
        "version: 2\n"
        "cid: fffffffe\n"
        "disk size: 4294967296\n"
        "create type: VMFS\n"
        "attributes: persistent, thin provisioned, split, cbt enabled, \n"
        "snapshot time: Sun Sep 13 12:26:41 2020\n"
        "change id: 52dec0d9-b943-9d10-615c-2e27f75fb7c9/70000\n"
        "disk id: 6000c291-a1b2-c3d4-e5f6-0718293a4b5c\n"
        "virtual machine id: 564d7a1b-2c3d-4e5f-6071-8293a4b5c6d7\n"
        "datastore id: 4f5e6d7c-8b9a-0b1c-2d3e-001122334455\n"
        "HV: esx1.example\n"
        "VM: vm one\n"
        "DS: \n"
        "path: dir/vm one\n";
    EXPECT_EQ(dumped(golden_bytes()), version_2);

    record_bytes_t old = golden_bytes();
    old.fill(80, 428, '\0').number(4, 1, 1).number(80, 2, 65535).number(82, 4, 1'600'000'001).text(86, "d\0s\0h\0v\0"s);
    EXPECT_THAT(dumped(old), HasSubstr("snapshot time: Sun Sep 13 12:26:41 2020\nchange id: "
                                       "52dec0d9-b943-9d10-615c-2e27f75fb7c9/65535\n"));
    EXPECT_THAT(dumped(old), HasSubstr("HV: h\nVM: v\nDS: s\npath: d\n"));
}

}  // namespace
}  // namespace mirador
