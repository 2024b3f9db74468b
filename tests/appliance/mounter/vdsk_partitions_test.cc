// SPDX-License-Identifier: Apache-2.0
#include "appliance/mounter/vdsk_partitions.h"

#include <gmock/gmock.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "appliance/lib/loopdev.h"
#include "appliance/mounter/lvm_label.h"
#include "lib/cor_string.h"
#include "lib/file_io.h"
#include "tests/lib/error_number.h"
#include "tests/support/disk_lab.h"
#include "tests/support/loop_guard.h"
#include "tests/support/sparse_writer.h"

namespace mirador {
namespace {

using testing::ElementsAre;
using testing::Field;
using testing::IsEmpty;

template <typename size_matcher_t>
auto partition(int number, std::uint64_t start, size_matcher_t size, const std::string& type) {
    return testing::AllOf(Field(&vdsk_partition_t::number, number), Field(&vdsk_partition_t::start, start),
                          Field(&vdsk_partition_t::size, size), Field(&vdsk_partition_t::type, type));
}

class vdsk_partitions : public testing::Test {
  protected:
    // A disk of 64 MiB, partitioned by sfdisk.
    std::string disk(const std::string& name, const std::string& script) {
        lab_.run("truncate -s 64M " + name);
        if (!script.empty())
            lab_.run("printf '" + script + "' | sfdisk -q " + name);
        return lab_.path(name);
    }
    std::vector<vdsk_partition_t> partitions_of(const std::string& path) {
        std::vector<vdsk_partition_t> partitions;
        EXPECT_EQ(vdsk_get_partitions(path, &partitions), nullptr);
        return partitions;
    }

    disk_lab_t lab_{1};
};

TEST_F(vdsk_partitions, OfDosAndGptTables) {
    const std::string dos = disk("dos", "label: dos\\n2048,8192,83\\n10240,,5\\n12288,4096,8e\\n");
    EXPECT_THAT(partitions_of(dos),
                ElementsAre(partition(1, 2048, 8192, "0x83"), partition(2, 10240, testing::_, "0x5"),
                            partition(5, 12288, 4096, "0x8e")));
    const std::string gpt = disk("gpt", "label: gpt\\n2048,8192,0FC63DAF-8483-4772-8E79-3D69D8477DE4\\n");
    EXPECT_THAT(partitions_of(gpt), ElementsAre(partition(1, 2048, 8192, "0fc63daf-8483-4772-8e79-3d69d8477de4")));
}

TEST_F(vdsk_partitions, NoneWithoutAKnownTable) {
    EXPECT_THAT(partitions_of(disk("empty", "")), IsEmpty());
    lab_.make_raw("noise.raw", 8192);
    EXPECT_THAT(partitions_of(lab_.path("noise.raw")), IsEmpty());
    EXPECT_THAT(partitions_of(write_file(lab_.path("tiny"), "x")), IsEmpty());
    EXPECT_THAT(partitions_of(write_file(lab_.path("nothing"), "")), IsEmpty());
    std::vector<vdsk_partition_t> partitions;
    EXPECT_EQ(number_of(vdsk_get_partitions(lab_.path("missing"), &partitions)), ENOENT);
    EXPECT_EQ(vdsk_get_partitions("/", &partitions)->number, EISDIR);
}

// Volumes made by the tools themselves, on a partition and on a whole disk.
TEST_F(vdsk_partitions, VolumeGroupsOfRealVolumes) {
    if (!loop_guard_t::available() || access("/sbin/vgcreate", X_OK) != 0)
        GTEST_SKIP() << "needs root, loop devices and lvm2";
    const loop_guard_t guard;
    const std::string volume = disk("volume", "");
    std::string loopdev;
    ASSERT_EQ(vdsk_assign_next_loop_dev(volume, false, loopdev_timeout, &loopdev), nullptr);
    const std::string config = "--config 'devices{filter=[\"a|^" + loopdev +
                               "$|\",\"r|.*|\"] use_devicesfile=0} backup{backup=0 archive=0} "
                               "global{locking_dir=\"" +
                               lab_.path("lock") + "\"} activation{udev_sync=0}' ";
    const std::string environment = "LVM_SUPPRESS_FD_WARNINGS=1 LVM_SYSTEM_DIR=" + lab_.path("etc ");
    lab_.run("mkdir etc lock");
    lab_.run(environment + "pvcreate " + config + "-y " + loopdev);
    lab_.run(environment + "vgcreate " + config + "guest-vg_1.0 " + loopdev);
    EXPECT_EQ(vdsk_release_loop_dev(loopdev), nullptr);

    std::vector<vdsk_volume_group_t> groups;
    ASSERT_EQ(vdsk_get_volume_groups(volume, {}, &groups), nullptr);
    ASSERT_EQ(groups.size(), 1U);
    EXPECT_EQ(groups[0].name, "guest-vg_1.0");
    EXPECT_EQ(groups[0].partition, 0);

    lab_.run("truncate -s 80M partitioned");
    lab_.run("printf 'label: dos\\n2048,4096,83\\n8192,131072,8e\\n' | sfdisk -q partitioned");
    lab_.run("dd if=volume of=partitioned bs=512 seek=8192 conv=notrunc,sparse");
    ASSERT_EQ(vdsk_get_volume_groups(lab_.path("partitioned"), partitions_of(lab_.path("partitioned")), &groups),
              nullptr);
    ASSERT_EQ(groups.size(), 1U);
    EXPECT_EQ(groups[0].name, "guest-vg_1.0");
    EXPECT_EQ(groups[0].partition, 2);
}

// A physical volume written by hand: label in sector 1, one data area, one metadata area at byte 4096 with its text
// where `text_offset` says, counted from the area.
struct volume_image_t {
    static constexpr std::size_t size = 65536;
    static constexpr std::size_t area = 4096;
    static constexpr std::size_t area_size = 8192;

    std::string bytes = std::string(size, '\0');

    void put(std::size_t at, const std::string& text) { bytes.replace(at, text.size(), text); }
    void put_number(std::size_t at, std::uint64_t value) {
        for (int i = 0; i < 8; ++i)
            bytes[at + static_cast<std::size_t>(i)] = static_cast<char>(value >> (8 * i));
    }
    explicit volume_image_t(std::size_t text_offset = 512) {
        put(512, "LABELONE");
        put_number(512 + 16, 32ULL << 32);
        put(512 + 24, "LVM2 001");
        put_number(512 + 32 + 40, 32768);  // data area
        put_number(512 + 32 + 72, area);   // metadata area
        put_number(512 + 32 + 80, area_size);
        put(area + 4, " LVM2 x[5A%r0N*>");
        put_number(area + 24, area);
        put_number(area + 32, area_size);
        put_number(area + 40, text_offset);
        const std::string text = "group {\nid = \"\"\n}\n";
        put_number(area + 48, text.size());
        for (std::size_t i = 0; i < text.size(); ++i)
            bytes[area + (text_offset + i < area_size ? text_offset + i : text_offset + i - area_size + 512)] = text[i];
    }
};

TEST_F(vdsk_partitions, GroupNameInDamagedMetadata) {
    const auto name_in = [&](const volume_image_t& image, std::uint64_t size = volume_image_t::size) {
        const unique_fd fd(open(write_file(lab_.path("volume"), image.bytes).c_str(), O_RDONLY));
        std::string name;
        return lvm_read_group_name(fd.get(), 0, size, &name) ? name : "none";
    };
    EXPECT_EQ(name_in(volume_image_t()), "group");
    EXPECT_EQ(name_in(volume_image_t(volume_image_t::area_size - 3)), "group");

    const struct {
        std::size_t at;
        std::uint64_t value;
    } patches[] = {
        {512, 0},                            // no label
        {512 + 16, ~0ULL},                   // volume header outside the sector
        {512 + 16, 470ULL << 32},            // lists outside the sector
        {512 + 32 + 72, 0},                  // no metadata area
        {512 + 32 + 72, ~0ULL - 511},        // area outside the volume
        {512 + 32 + 80, 512},                // area too small
        {volume_image_t::area + 40, 8192},   // text behind the area
        {volume_image_t::area + 40, 8},      // text in the header
        {volume_image_t::area + 40, ~0ULL},  // far behind
        {volume_image_t::area + 48, 0},      // no text
        {volume_image_t::area + 48, 3},      // text ends within the name
        {volume_image_t::area + 60, 1},      // a copy that is not kept up
        {volume_image_t::area + 512, 0x2f2e2e2f2e2e2f2fULL},
    };
    for (const auto& patch : patches) {
        volume_image_t image;
        image.put_number(patch.at, patch.value);
        EXPECT_EQ(name_in(image), "none") << patch.at;
    }
    volume_image_t image;
    image.put(volume_image_t::area + 512, std::string(128, 'n') + " {");
    image.put_number(volume_image_t::area + 48, 200);
    EXPECT_EQ(name_in(image), "none");
    EXPECT_EQ(name_in(volume_image_t(), 4096), "none");
    EXPECT_EQ(name_in(volume_image_t(), 600), "none");
}

}  // namespace
}  // namespace mirador
