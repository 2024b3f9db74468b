// SPDX-License-Identifier: Apache-2.0
// Tables of real disk chains, against what qemu-img says the disks hold.
#include "appliance/mounter/vmdkmount.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <filesystem>

#include "lib/cor_string.h"
#include "tests/support/cowd_writer.h"
#include "tests/support/disk_lab.h"
#include "tests/support/dm_table.h"
#include "tests/support/record_bytes.h"
#include "tests/support/sparse_writer.h"
#include "vmware/lib/vmdk/chain_check.h"
#include "vmware/lib/vmdk/vmdk_chain.h"
#include "vmware/lib/vmdk/vmdk_extent.h"
#include "vmware/lib/vmdk/vmdk_graindir.h"
#include "vmware/lib/vmdk/vmdk_open.h"

namespace mirador {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;

// The table of a disk, with the extent files themselves in place of loop devices.
errdesc_t* emit_table(const std::string& path, std::string* table, vdsk_stats_t* stats) {
    vmdkdesc_t disk;
    RETURN_IF_ERROR(vmdk_open_checked(path, descriptor_role_t::head, &disk));
    RETURN_IF_ERROR(vmdk_get_ancestors(&disk, 0, &disk.vmdk_ancestor_array));
    RETURN_IF_ERROR(vmdk_check_chain(&disk));
    const vmdk_chain_t chain = vmdk_mapped_disks(&disk);
    for (vmdkdesc_t* member : chain) {
        RETURN_IF_ERROR(vmdk_open_extentfiles(member));
        for (std::uint32_t i = 0; i < member->extentdesccount(); ++i)
            member->extentdesc[i]->loopdev = vmdk_extent_path(*member, i);
    }
    errdesc_t* e = nullptr;
    *table = printed([&](std::FILE* out) { e = vmdk_emit_extents(out, chain, stats); });
    return e;
}

// Maps `disk` of the lab, compares with qemu-img's conversion of it and hands out the table.
std::vector<dm_line_t> expect_mapped_as_converted(const disk_lab_t& lab, const std::string& disk, vdsk_stats_t* stats) {
    std::string text;
    errdesc_t* e = emit_table(lab.path(disk), &text, stats);
    EXPECT_EQ(e, nullptr) << (e ? e->string : "");
    std::vector<dm_line_t> table;
    std::string fault;
    EXPECT_TRUE(parse_dm_table(text, &table, &fault)) << fault;
    EXPECT_TRUE(read_dm_table(table, lab.path("mapped.raw"), &fault)) << fault;
    lab.to_raw(disk, "converted.raw");
    EXPECT_TRUE(lab.same("mapped.raw", "converted.raw")) << disk;
    return table;
}

struct chain_case_t {
    const char* name;
    const char* base;
    const char* delta;
    unsigned depth;
    std::uint64_t sectors;
};

void PrintTo(const chain_case_t& c, std::ostream* out) {
    *out << c.name;
}

class qemu_chain : public testing::TestWithParam<chain_case_t> {};

TEST_P(qemu_chain, MapsTheSameBytesAsConversion) {
    const chain_case_t& c = GetParam();
    disk_lab_t lab(c.depth + static_cast<unsigned>(c.sectors));
    lab.make_raw("base.raw", c.sectors);
    lab.make_base("base.vmdk", c.base, "base.raw");
    std::string head = "base.vmdk";
    for (unsigned i = 1; i <= c.depth; ++i) {
        const std::string delta = cor_format("delta%u.vmdk", i);
        lab.make_delta(delta, c.delta, head);
        lab.scatter_writes(delta, c.sectors, 6);
        head = delta;
    }
    vdsk_stats_t stats;
    const std::vector<dm_line_t> table = expect_mapped_as_converted(lab, head, &stats);
    EXPECT_EQ(stats.sectors, c.sectors);
    EXPECT_EQ(stats.lines, table.size());
    EXPECT_EQ(stats.chain_length, c.depth + 1);
    const std::string_view base = c.base;
    EXPECT_EQ(stats.zero_sectors > 0, base.ends_with("Sparse") && c.sectors > 1000);
}

constexpr std::uint64_t table_sectors = 512 * 128;                 // what one grain table of qemu's disks stands for
constexpr std::uint64_t two_extents = (2ULL << 30) / 512 + 12345;  // beyond qemu's 2 GiB extents

constexpr const char* mono_flat = "monolithicFlat";
constexpr const char* mono_sparse = "monolithicSparse";
constexpr const char* split_flat = "twoGbMaxExtentFlat";
constexpr const char* split_sparse = "twoGbMaxExtentSparse";

INSTANTIATE_TEST_SUITE_P(
    disks, qemu_chain,
    testing::Values(chain_case_t{"flat", mono_flat, "", 0, 100000},
                    chain_case_t{"flat_split", split_flat, "", 0, two_extents},
                    chain_case_t{"sparse_alone", mono_sparse, "", 0, 3 * table_sectors + 77},
                    chain_case_t{"depth_1", mono_flat, mono_sparse, 1, 200000},
                    chain_case_t{"depth_2", mono_flat, mono_sparse, 2, 200000},
                    chain_case_t{"depth_8", mono_flat, mono_sparse, 8, 200000},
                    chain_case_t{"depth_32", mono_flat, mono_sparse, 32, 200000},
                    chain_case_t{"base_lacks_grains", mono_sparse, mono_sparse, 3, 400000},
                    chain_case_t{"split_delta", split_flat, split_sparse, 2, two_extents},
                    chain_case_t{"split_delta_one_extent", mono_flat, split_sparse, 1, 70000},
                    chain_case_t{"one_sector", mono_flat, mono_sparse, 1, 1},
                    chain_case_t{"below_a_grain", mono_flat, mono_sparse, 1, 127},
                    chain_case_t{"one_whole_table", mono_flat, mono_sparse, 2, table_sectors},
                    chain_case_t{"one_table_and_a_part_of_a_grain", mono_flat, mono_sparse, 2, table_sectors + 10},
                    chain_case_t{"a_grain_short_of_a_table", mono_sparse, mono_sparse, 2, table_sectors - 127}),
    [](const auto& of) { return std::string(of.param.name); });

struct cowd_case_t {
    std::uint32_t grainsize;
    std::uint64_t sectors;
};

// A delta of the hypervisor's kind. That qemu-img reads it as the image it was made from proves the writer; that the
// mapping reads the same proves the table.
TEST(cowd_chain, MapsTheSameBytesAsConversion) {
    for (const cowd_case_t c : {cowd_case_t{1, 4096}, {1, 4097}, {1, 20001}, {8, 100003}, {16, 140003}, {128, 10}}) {
        SCOPED_TRACE(cor_format("grain %u, %ju sectors", c.grainsize, std::uintmax_t{c.sectors}));
        disk_lab_t lab(c.grainsize);
        lab.make_raw("base.raw", c.sectors);
        lab.make_base("base.vmdk", mono_flat, "base.raw");
        std::string parent_raw = "base.raw";
        std::string parent = "base.vmdk";
        for (unsigned i = 1; i <= 2; ++i) {
            const std::string raw = cor_format("image%u.raw", i);
            const std::string delta = cor_format("delta%u.vmdk", i);
            lab.run("cp " + parent_raw + " " + raw);
            lab.scatter_writes(raw, c.sectors, 4, "raw");
            cowd_descriptor_t ids;
            ids.cid = i;
            ids.parent_cid = lab.content_id(parent);
            ids.parent_hint = parent;
            errdesc_t* e = write_cowd_delta(lab.path(parent_raw), lab.path(raw), lab.path(delta), c.grainsize, ids);
            ASSERT_EQ(e, nullptr) << e->string;
            parent_raw = raw;
            parent = delta;
        }
        vdsk_stats_t stats;
        expect_mapped_as_converted(lab, parent, &stats);
        EXPECT_TRUE(lab.same("converted.raw", parent_raw));
        EXPECT_GT(stats.child_sectors, 0U);
    }
}

// Chains written by hand: which lines come out, and what is turned down while tables are read.
class emission : public testing::Test {
  protected:
    // A disk of one extent, which it names as the line given ("RW 100 FLAT \"x\" 0").
    void disk(const std::string& name, const std::string& extent, const std::string& parent = "") {
        descriptor_text_t text;
        text.extents = {extent};
        text.parent_hint = parent;
        text.parent_cid = parent.empty() ? "ffffffff" : "00000001";
        text.write(dir_ / (name + ".vmdk"));
    }
    void sparse_disk(const std::string& name, const sparse_image_t& image, const std::string& parent = "") {
        image.write(dir_ / name);
        disk(name, cor_format("RW %u SPARSE \"%s\"", capacity, name.c_str()), parent);
    }
    void flat_disk(const std::string& name, std::uint32_t in_file_offset = 0) {
        flat_file(name, in_file_offset + capacity);
        disk(name, cor_format("RW %u FLAT \"%s\" %u", capacity, name.c_str(), in_file_offset));
    }
    void flat_file(const std::string& name, std::uint64_t sectors) {
        write_file(dir_ / name, "");
        std::filesystem::resize_file(dir_ / name, sectors * sector_size);
    }
    std::vector<dm_line_t> table_of(const std::string& name) {
        std::string text;
        errdesc_t* e = emit_table(dir_ / (name + ".vmdk"), &text, &stats_);
        EXPECT_EQ(e, nullptr) << (e ? e->string : "");
        std::vector<dm_line_t> table;
        std::string fault;
        EXPECT_TRUE(parse_dm_table(text, &table, &fault)) << fault;
        return table;
    }
    std::string failure_of(const std::string& name, errnum_t number) {
        std::string text;
        const errdesc_t* e = emit_table(dir_ / (name + ".vmdk"), &text, &stats_);
        EXPECT_EQ(e ? e->number : 0, number);
        return e ? e->string : "";
    }
    dm_line_t line(std::uint64_t start, std::uint64_t length, const std::string& name, std::uint64_t offset) {
        return {start, length, dir_ / name, offset};
    }

    static constexpr std::uint32_t grain = 128;
    static constexpr std::uint32_t entries = 8;                         // entries of a grain table
    static constexpr std::uint32_t capacity = 2 * entries * grain + 5;  // two tables and a part of a grain

    temp_dir_t dir_;
    vdsk_stats_t stats_;
};

TEST_F(emission, RunsEndWhereGrainsAreNotAdjacentAndAtTheEndOfATable) {
    flat_disk("base");
    sparse_image_t child(capacity, grain, entries);
    for (std::uint32_t i = 0; i < 2 * entries; ++i)
        child.allocate(i);
    std::swap(child.grains[2], child.grains[3]);
    const std::uint32_t c = child.grains[0];
    sparse_disk("child", child, "base.vmdk");
    EXPECT_THAT(
        table_of("child"),
        ElementsAre(line(0, 2 * grain, "child", c), line(2 * grain, grain, "child", c + 3 * grain),
                    line(3 * grain, grain, "child", c + 2 * grain), line(4 * grain, 4 * grain, "child", c + 4 * grain),
                    line(8 * grain, 8 * grain, "child", c + 8 * grain), line(16 * grain, 5, "base", 16 * grain)));
}

TEST_F(emission, FlatExtentsBeginWhereTheirLineSays) {
    constexpr std::uint32_t offset = 63;
    flat_disk("base", offset);
    EXPECT_THAT(table_of("base"), ElementsAre(line(0, capacity, "base", offset)));
    sparse_image_t child(capacity, grain, entries);
    child.allocate(0);
    sparse_disk("child", child, "base.vmdk");
    EXPECT_THAT(table_of("child"),
                ElementsAre(line(0, grain, "child", child.grains[0]), line(grain, 7 * grain, "base", offset + grain),
                            line(8 * grain, 8 * grain, "base", offset + 8 * grain),
                            line(16 * grain, 5, "base", offset + 16 * grain)));

    // A flat extent behind another one starts at its own offset.
    descriptor_text_t text;
    text.extents = {"RW 100 FLAT \"base\" 40", "RW 200 FLAT \"base\" 10"};
    text.write(dir_ / "two.vmdk");
    EXPECT_THAT(table_of("two"), ElementsAre(line(0, 100, "base", 40), line(100, 200, "base", 10)));
}

TEST_F(emission, FlatFilesAreComparedWithTheirSize) {
    flat_disk("base", 3);
    sparse_disk("child", sparse_image_t(capacity, grain, entries), "base.vmdk");
    flat_file("base", 3 + capacity - 1);
    const std::string text =
        cor_format("Flat file %s of size %u do not match with the expected extent size %u", (dir_ / "base").c_str(),
                   (3 + capacity - 1) * sector_size, (3 + capacity) * sector_size);
    EXPECT_EQ(failure_of("base", EIO), text);
    EXPECT_EQ(failure_of("child", EIO), text);
    flat_file("base", 3 + capacity + 1);
    testing::internal::CaptureStdout();
    EXPECT_THAT(table_of("base"), ElementsAre(line(0, capacity, "base", 3)));
    EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("specified in the disk descriptor."));
}

TEST_F(emission, TablesAndGrainsBeyondTheFileAreTurnedDown) {
    const auto refused = [&](const sparse_image_t& image, const std::string& fault) {
        sparse_disk("disk", image);
        EXPECT_THAT(failure_of("disk", EINVAL), testing::AllOf(HasSubstr("disk: "), HasSubstr(fault)));
    };
    const sparse_image_t sound(capacity, grain, entries);
    sparse_image_t image = sound;
    image.directory[1] = static_cast<std::uint32_t>(image.file_sectors);
    refused(image, "grain table 1 ");
    image.directory[1] = 0xffffffff;
    refused(image, "grain table 1 ");
    image = sound;
    image.allocate(9);
    image.file_sectors -= 1;
    refused(image, cor_format("the grain of sector %u ", 9 * grain));
    image.grains[9] = 0xffffffff;
    refused(image, cor_format("the grain of sector %u ", 9 * grain));

    // What stands behind the disk's end is nobody's.
    image = sound;
    image.grains[17] = 0xffffffff;
    image.allocate(16);
    image.file_sectors -= grain - 5;
    sparse_disk("disk", image);
    EXPECT_THAT(table_of("disk").back(), line(16 * grain, 5, "disk", image.grains[16]));
}

// A small file whose directory names one table for everything would be read for hours.
TEST_F(emission, TablesNamedWithoutEndAreTurnedDown) {
    constexpr std::uint32_t whole = 0xffffffff;
    constexpr std::uint32_t tables = 1U << 16;
    constexpr std::uint32_t table = 1 + tables * sizeof(std::uint32_t) / sector_size;
    sparse_image_t image(1, 1, 1U << 16);
    image.hdr.capacity = whole;
    image.directory.assign(tables, table);
    image.hdr.overhead = table + (1U << 16) * sizeof(std::uint32_t) / sector_size;
    image.file_sectors = image.hdr.overhead;
    image.write(dir_ / "huge");
    descriptor_text_t text;
    text.extents.assign(3, cor_format("RW %u SPARSE \"huge\"", whole));
    text.write(dir_ / "disk.vmdk");
    EXPECT_THAT(failure_of("disk", EFBIG), HasSubstr("grain tables of " + (dir_ / "disk.vmdk")));
}

}  // namespace
}  // namespace mirador
