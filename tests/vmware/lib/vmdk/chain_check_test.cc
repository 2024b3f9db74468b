// SPDX-License-Identifier: Apache-2.0
// Chains that must be turned down before anything asserts on them: damaged headers, disks that do not fit each other,
// files that a descriptor may not name.
#include "vmware/lib/vmdk/chain_check.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "lib/cor_string.h"
#include "tests/lib/error_number.h"
#include "tests/lib/temp_dir.h"
#include "tests/support/cowd_writer.h"
#include "tests/support/sparse_writer.h"
#include "vmware/lib/vmdk/datastore_path.h"
#include "vmware/lib/vmdk/vmdk_chain.h"
#include "vmware/lib/vmdk/vmdk_extent.h"
#include "vmware/lib/vmdk/vmdk_graindir.h"
#include "vmware/lib/vmdk/vmdk_open.h"

namespace mirador {
namespace {

using testing::AllOf;
using testing::HasSubstr;

constexpr std::uint32_t capacity = 100000;
constexpr std::uint64_t too_wide = 1ULL << 32;

// Opens and checks the chain of `path` as the mounter does: "accepted", or the error's text. A chain that is accepted
// must then open without an assertion and keep no extent file open when it is refused.
std::string verdict(const std::string& path, errnum_t number = EINVAL) {
    vmdkdesc_t disk;
    errdesc_t* e = vmdk_open_checked(path, descriptor_role_t::head, &disk);
    if (e == nullptr)
        e = vmdk_get_ancestors(&disk, 0, &disk.vmdk_ancestor_array);
    if (e == nullptr)
        e = vmdk_check_chain(&disk);
    if (e != nullptr) {
        EXPECT_EQ(e->number, number) << e->string;
        for (const vmdkdesc_t* member : disk.vmdk_ancestor_array) {
            for (const auto& extent : member->extentdesc)
                EXPECT_FALSE(extent->fd);
        }
        return e->string;
    }
    for (vmdkdesc_t* member : vmdk_mapped_disks(&disk))
        EXPECT_EQ(vmdk_open_extentfiles(member), nullptr);
    return "accepted";
}

class chain_check : public testing::Test {
  protected:
    void TearDown() override { datastore_mount_points = {"/vmfs.direct/volumes", "/vmfs/volumes"}; }

    // A sound disk with one sparse extent.
    std::string sparse_disk(const std::string& name, std::uint32_t grainsize = 128, std::uint32_t table = 512) {
        sparse_image_t(capacity, grainsize, table).write(dir_ / (name + "-s001.vmdk"));
        return disk(name, "SPARSE", name + "-s001.vmdk");
    }
    // A sound disk with one copy-on-write extent.
    std::string cow_disk(const std::string& name, const std::string& type = "VMFSSPARSE") {
        cowd_writer_t writer(capacity, 8);
        EXPECT_EQ(writer.create(dir_ / (name + "-s001.vmdk")), nullptr);
        EXPECT_EQ(writer.add_grain(7, {}), nullptr);
        EXPECT_EQ(writer.finish(), nullptr);
        return disk(name, type, name + "-s001.vmdk");
    }
    std::string flat_disk(const std::string& name) {
        write_file(dir_ / (name + "-flat.vmdk"), "");
        std::filesystem::resize_file(dir_ / (name + "-flat.vmdk"), std::uint64_t{capacity} * sector_size);
        return disk(name, "FLAT", name + "-flat.vmdk");
    }
    std::string disk(const std::string& name, const std::string& type, const std::string& extent) {
        text_.extents = {cor_format("RW %u %s \"%s\"", capacity, type.c_str(), extent.c_str())};
        text_.write(dir_ / (name + ".vmdk"));
        text_ = {};
        return dir_ / (name + ".vmdk");
    }
    // Makes the disk written next a child of `parent`.
    void over(const std::string& parent) {
        text_.parent_hint = parent;
        text_.parent_cid = "00000001";
    }

    temp_dir_t dir_;
    descriptor_text_t text_;
};

struct patch_t {
    std::uint64_t offset;
    std::size_t size;
    std::uint64_t value;
    const char* fault;
};

// Damages the extent, and expects the disk to be refused for it.
void expect_refused(const std::string& path, const std::string& extent, const patch_t& patch) {
    patch_file(extent, patch.offset, patch.size, patch.value);
    EXPECT_THAT(verdict(path), AllOf(HasSubstr(patch.fault), HasSubstr(extent))) << patch.offset << " " << patch.value;
}

TEST_F(chain_check, DamagedHostedHeaders) {
    const std::string path = sparse_disk("disk");
    const std::string extent = dir_ / "disk-s001.vmdk";
    EXPECT_EQ(verdict(path), "accepted");
    const std::uint64_t end = std::filesystem::file_size(extent) / sector_size;
    const patch_t patches[] = {
        {offsetof(sparsehdr_t, magic), 4, 0x564d4443, "magic"},
        {offsetof(sparsehdr_t, version), 4, 2, "version"},
        {offsetof(sparsehdr_t, flags), 4, 3U | 1U << 16, "flags"},
        {offsetof(sparsehdr_t, doubleendlinechar1), 1, '\n', "text-mode"},
        {offsetof(sparsehdr_t, capacity), 8, 0, "capacity"},
        {offsetof(sparsehdr_t, capacity), 8, capacity - 1, "capacity"},
        {offsetof(sparsehdr_t, capacity), 8, too_wide, "capacity"},
        {offsetof(sparsehdr_t, capacity), 8, too_wide - 1, "beyond the end"},
        {offsetof(sparsehdr_t, grainsize), 8, 0, "grain size"},
        {offsetof(sparsehdr_t, grainsize), 8, 129, "grain size"},
        {offsetof(sparsehdr_t, grainsize), 8, 1U << 17, "grain size"},
        {offsetof(sparsehdr_t, grainsize), 8, too_wide + 128, "grain size"},
        {offsetof(sparsehdr_t, numgtespergt), 4, 0, "grain table"},
        {offsetof(sparsehdr_t, numgtespergt), 4, 0xffffffff, "grain table"},
        {offsetof(sparsehdr_t, gdoffset), 8, 0, "no grain directory"},
        {offsetof(sparsehdr_t, gdoffset), 8, end, "beyond the end"},
        {offsetof(sparsehdr_t, gdoffset), 8, 1ULL << 55, "beyond the end"},
    };
    for (const patch_t& patch : patches) {
        sparse_disk("disk");
        expect_refused(path, extent, patch);
    }
}

TEST_F(chain_check, DamagedCopyOnWriteHeaders) {
    const std::string path = cow_disk("disk");
    const std::string extent = dir_ / "disk-s001.vmdk";
    EXPECT_EQ(verdict(path), "accepted");
    const patch_t patches[] = {
        {offsetof(cowdiskhdr_t, magic), 4, sparsehdr_t::magic_value, "magic"},
        {offsetof(cowdiskhdr_t, version), 4, 2, "version"},
        {offsetof(cowdiskhdr_t, flags), 4, 1, "flags"},
        {offsetof(cowdiskhdr_t, numsectors), 4, capacity - 1, "capacity"},
        {offsetof(cowdiskhdr_t, grainsize), 4, 0, "grain size"},
        {offsetof(cowdiskhdr_t, grainsize), 4, 0x80000000, "grain size"},
        {offsetof(cowdiskhdr_t, gdoffset), 4, 0xffffffff, "beyond the end"},
        {offsetof(cowdiskhdr_t, numgdentries), 4, 3, "too short"},
    };
    for (const patch_t& patch : patches) {
        cow_disk("disk");
        expect_refused(path, extent, patch);
    }
    // The hypervisor's newer kind never carries this header.
    cow_disk("disk", "SESPARSE");
    patch_file(extent, 0, 8, 0xcafebabe);
    EXPECT_THAT(verdict(path), HasSubstr("magic"));
}

TEST_F(chain_check, ShortHeaders) {
    for (const std::string& path : {sparse_disk("disk"), cow_disk("disk")}) {
        for (const std::uintmax_t size : {0U, 1U, 511U, 513U, 2048U, 2049U}) {
            std::filesystem::resize_file(dir_ / "disk-s001.vmdk", size);
            EXPECT_THAT(verdict(path), HasSubstr("short header")) << size;
        }
    }
    sparse_disk("disk");
    std::filesystem::resize_file(dir_ / "disk-s001.vmdk", 512);
    EXPECT_THAT(verdict(dir_ / "disk.vmdk"), HasSubstr("beyond the end"));
}

TEST_F(chain_check, DisksThatDoNotFitEachOther) {
    flat_disk("base");
    over("base.vmdk");
    EXPECT_EQ(verdict(sparse_disk("same")), "accepted");
    const auto refused = [&](const std::string& child, const std::string& fault) {
        EXPECT_THAT(verdict(child), HasSubstr(fault));
    };
    sparse_disk("parent");
    over("parent.vmdk");
    EXPECT_EQ(verdict(sparse_disk("child")), "accepted");
    over("parent.vmdk");
    refused(sparse_disk("child", 64), "another geometry");
    over("parent.vmdk");
    refused(sparse_disk("child", 128, 256), "another geometry");
    over("parent.vmdk");
    refused(cow_disk("child"), "another geometry");

    over("base.vmdk");
    text_.extents = {"RW 50000 SPARSE \"same-s001.vmdk\"", "RW 50000 SPARSE \"same-s001.vmdk\""};
    text_.write(dir_ / "child.vmdk");
    refused(dir_ / "child.vmdk", "number of extents");
    text_.extents = {cor_format("RW %u SPARSE \"same-s001.vmdk\"", capacity - 1)};
    text_.write(dir_ / "child.vmdk");
    refused(dir_ / "child.vmdk", "size of extent 0");

    text_ = {};
    text_.extents = {"RW 50000 FLAT \"base-flat.vmdk\" 0", "RW 50000 SPARSE \"same-s001.vmdk\""};
    text_.write(dir_ / "mixed.vmdk");
    refused(dir_ / "mixed.vmdk", "longer grain tables");

    text_ = {};
    text_.createtype = "streamOptimized";
    refused(sparse_disk("stream"), "stream-optimised");
}

TEST_F(chain_check, DiskOnTheOrdinaryMountIsOneFlatFileWhateverItsTypeSays) {
    const std::string path = sparse_disk("disk");
    const std::string extent = dir_ / "disk-s001.vmdk";
    const auto check = [&] {
        vmdkdesc_t disk;
        EXPECT_EQ(vmdk_open_checked(path, descriptor_role_t::head, &disk), nullptr);
        EXPECT_EQ(vmdk_get_ancestors(&disk, 0, &disk.vmdk_ancestor_array), nullptr);
        disk.datastore_direct = false;
        const errdesc_t* e = vmdk_check_chain(&disk);
        EXPECT_EQ(disk.extentdesc[0]->extenttype, ET_FLAT);
        EXPECT_EQ(static_cast<bool>(disk.extentdesc[0]->fd), e == nullptr);
        return number_of(e);
    };
    EXPECT_EQ(check(), 0);
    // A sparse file that has grown to the disk's size is none the less no flat one.
    std::filesystem::resize_file(extent, std::uint64_t{capacity} * sector_size);
    for (const std::uint64_t magic : {sparsehdr_t::magic_value, cowdiskhdr_t::magic_value, 0xcafebabeU}) {
        patch_file(extent, 0, 4, magic);
        EXPECT_EQ(check(), EIO) << magic;
    }
    patch_file(extent, 0, 4, 0);
    EXPECT_EQ(check(), 0);
}

TEST_F(chain_check, FilesThatADescriptorMayNotName) {
    const std::string store = dir_ / "volumes/ds1";
    std::filesystem::create_directories(store + "/vm");
    std::filesystem::create_directories(dir_ / "volumes/ds2");
    datastore_mount_points = {dir_ / "volumes"};
    const std::string secret = write_file(dir_ / "secret", std::string(4096, 's'));
    const std::string neighbour = write_file(dir_ / "volumes/ds2/neighbour.vmdk", std::string(4096, 'n'));
    ASSERT_EQ(mkfifo((store + "/vm/fifo").c_str(), 0600), 0);
    std::filesystem::create_directory(store + "/vm/directory");
    std::filesystem::create_directory(dir_ / "mounted");
    write_file(dir_ / "mounted/far.vmdk", std::string(4096, 'f'));
    std::filesystem::create_symlink(dir_ / "mounted", dir_ / "volumes/linked");  // a datastore all the same
    write_file(dir_ / "volumes/stray", std::string(4096, 's'));
    std::filesystem::create_symlink(secret, store + "/vm/link");
    std::filesystem::create_symlink(dir_.path(), store + "/vm/out");
    std::filesystem::create_symlink("../../ds2/neighbour.vmdk", store + "/vm/good-link");

    const auto naming = [&](const std::string& extent, errnum_t number = EINVAL) {
        descriptor_text_t text;
        text.createtype = "vmfs";
        text.extents = {"RW 8 VMFS \"" + extent + "\""};
        text.write(store + "/vm/disk.vmdk");
        return verdict(store + "/vm/disk.vmdk", number);
    };
    EXPECT_EQ(naming(neighbour), "accepted");
    EXPECT_EQ(naming("good-link"), "accepted");
    EXPECT_EQ(naming(dir_ / "volumes/linked/far.vmdk"), "accepted");
    EXPECT_THAT(naming(dir_ / "volumes/stray"), HasSubstr("outside every datastore"));
    EXPECT_THAT(naming(secret), HasSubstr(secret));
    EXPECT_THAT(naming("../../../secret"), HasSubstr(secret));
    EXPECT_THAT(naming("link"), HasSubstr(secret));
    EXPECT_THAT(naming("out/secret"), HasSubstr(secret));
    EXPECT_THAT(naming("/dev/zero"), HasSubstr("/dev/zero"));
    EXPECT_THAT(naming("fifo"), HasSubstr("fifo"));
    EXPECT_THAT(naming("directory"), HasSubstr("directory"));
    EXPECT_THAT(naming("missing", ENOENT), HasSubstr(store + "/vm/missing"));
}

// A name of a file on a datastore, but none that begins with a mount root, may lead elsewhere once the file is read.
TEST_F(chain_check, LinkThatIsTurnedMeanwhile) {
    const std::string store = dir_ / "volumes/ds1";
    std::filesystem::create_directories(store);
    datastore_mount_points = {dir_ / "volumes"};
    std::filesystem::create_symlink(store, dir_ / "aside");
    const std::string secret = write_file(dir_ / "secret", std::string(4096, 's'));
    write_file(store + "/good-flat.vmdk", std::string(4096, 'g'));
    descriptor_text_t text;
    text.extents = {"RW 8 FLAT \"" + secret + "\""};
    text.write(store + "/evil.vmdk");
    std::filesystem::create_symlink(store + "/evil.vmdk", store + "/link.vmdk");
    text.extents = {"RW 8 FLAT \"good-flat.vmdk\""};
    text.parent_cid = "00000001";
    text.parent_hint = dir_ / "aside/link.vmdk";
    text.write(store + "/child.vmdk");

    const auto turned = [&](const std::string& path) {
        std::filesystem::remove(store + "/link.vmdk");
        std::filesystem::create_symlink(store + "/evil.vmdk", store + "/link.vmdk");
        vmdkdesc_t disk;
        EXPECT_EQ(vmdk_open_checked(path, descriptor_role_t::head, &disk), nullptr);
        EXPECT_EQ(vmdk_get_ancestors(&disk, 0, &disk.vmdk_ancestor_array), nullptr);
        std::filesystem::remove(store + "/link.vmdk");
        std::filesystem::create_symlink(secret, store + "/link.vmdk");
        const errdesc_t* e = vmdk_check_chain(&disk);
        return e == nullptr ? std::string("accepted") : e->string;
    };
    EXPECT_THAT(turned(store + "/child.vmdk"), HasSubstr("outside every datastore: " + secret));
    EXPECT_THAT(turned(dir_ / "aside/link.vmdk"), HasSubstr("outside every datastore: " + secret));
}

// Many small claims add up: each directory is sound, all together are not.
TEST_F(chain_check, DirectoriesThatAreTooLargeTogether) {
    constexpr std::uint32_t whole = 0xffffffff;
    sparse_image_t image(1, 8, 512);
    image.hdr.capacity = whole;
    image.file_sectors = 1 + vmdk_max_gd_entries * sizeof(std::uint32_t) / sector_size;
    image.write(dir_ / "huge.vmdk");
    const auto with_extents = [&](std::size_t count) {
        descriptor_text_t text;
        text.createtype = "twoGbMaxExtentSparse";
        text.extents.assign(count, cor_format("RW %u SPARSE \"huge.vmdk\"", whole));
        text.write(dir_ / "disk.vmdk");
        return dir_ / "disk.vmdk";
    };
    EXPECT_EQ(vmdk_graindir_entries(whole, 8, 512), vmdk_max_gd_entries);
    EXPECT_THAT(verdict(with_extents(vmdk_max_chain_entries / vmdk_max_gd_entries + 1)), HasSubstr("too large"));
}

}  // namespace
}  // namespace mirador
