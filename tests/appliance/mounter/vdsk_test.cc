// SPDX-License-Identifier: Apache-2.0
// Setting a disk up and taking it down, with real loop devices (so only for root) and a script in place of dmsetup.
#include "appliance/mounter/vdsk.h"

#include <gmock/gmock.h>
#include <sys/resource.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <sstream>

#include "appliance/lib/loopdev.h"
#include "appliance/mounter/vdsk_mapping.h"
#include "appliance/mounter/vmdkmount.h"
#include "lib/clock.h"
#include "lib/tool_paths.h"
#include "tests/lib/error_number.h"
#include "tests/lib/in_child.h"
#include "tests/support/disk_lab.h"
#include "tests/support/dm_table.h"
#include "tests/support/loop_guard.h"
#include "vmware/lib/vmdk/vmdk_open.h"

namespace mirador {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr std::uint64_t sectors = 70000;
constexpr unsigned clock_factor = 50;  // each run of a tool costs up to a second of waiting

// Appends its arguments to "calls" and copies a table that it is to load to "table"; fails where a file says so, for
// all devices or, of those that are joined, for the one with the ending given.
constexpr const char* fake_dmsetup =
    "echo \"$@\" >> \"$(dirname $0)/calls\"\n"
    "part=${2##*-}; [ $part != ${2#vdsk-*-*-*-} ] && part=joining\n"
    "[ -e \"$(dirname $0)/fail-$1\" ] || [ -e \"$(dirname $0)/fail-$1-$part\" ] && exit 5\n"
    "[ $1 != create ] || { cp $3 $(dirname $0)/table; stat -c %a $3 > $(dirname $0)/mode; }\n";

std::size_t open_descriptors() {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

class vdsk : public testing::Test {
  protected:
    void SetUp() override {
        if (!loop_guard_t::available())
            GTEST_SKIP() << "needs root and loop devices";
        std::filesystem::create_directory(tmp_);
        tool_paths().dmsetup = write_script(lab_.path("dmsetup"), fake_dmsetup);
        tool_paths().tmp_dir = tmp_;
        tool_paths().mapper_dir = lab_.path("mapper");
        make_chain();
    }
    void TearDown() override {
        for (const std::string& loopdev : loop_guard_t::left_below(directory_))
            ADD_FAILURE() << loopdev << " was left bound: " << vdsk_release_loop_dev(loopdev);
        tool_paths() = tool_paths_t();
    }

    // head.vmdk over middle.vmdk over base.vmdk.
    void make_chain() {
        lab_.make_raw("base.raw", sectors);
        lab_.make_base("base.vmdk", "monolithicFlat", "base.raw");
        lab_.make_delta("middle.vmdk", "monolithicSparse", "base.vmdk");
        lab_.scatter_writes("middle.vmdk", sectors, 4);
        lab_.make_delta("head.vmdk", "monolithicSparse", "middle.vmdk");
        lab_.scatter_writes("head.vmdk", sectors, 4);
    }

    fast_clock_t clock_{clock_factor};
    loop_guard_t guard_;
    disk_lab_t lab_{1};
    const std::string directory_ = lab_.path("").substr(0, lab_.path("").size() - 1);
    const std::string tmp_ = lab_.path("tmp");
};

TEST_F(vdsk, DiskIsMappedThroughLoopDevicesAndTakenDown) {
    const std::size_t before = open_descriptors();
    std::unique_ptr<vdskdesc_t> disk;
    errdesc_t* e = vdsk_setup(lab_.path("head.vmdk"), &disk);
    ASSERT_EQ(e, nullptr) << e->string;
    EXPECT_EQ(disk->devicemapper_path, lab_.path("mapper/") + disk->dm_name);
    EXPECT_EQ(disk->vdsk_extent_path, lab_.path("head.vmdk"));
    ASSERT_EQ(disk->loopdevs.size(), 3U);
    EXPECT_EQ(loop_guard_t::backing_file(disk->loopdevs[0]), lab_.path("head.vmdk"));
    EXPECT_EQ(loop_guard_t::backing_file(disk->loopdevs[2]), lab_.path("base-flat.vmdk"));

    std::vector<dm_line_t> table;
    std::string fault;
    ASSERT_TRUE(parse_dm_table(read_file(lab_.path("table")), &table, &fault)) << fault;
    ASSERT_TRUE(read_dm_table(table, lab_.path("mapped.raw"), &fault)) << fault;
    lab_.to_raw("head.vmdk", "converted.raw");
    EXPECT_TRUE(lab_.same("mapped.raw", "converted.raw"));
    EXPECT_EQ(vmdk_get_vdsk_stats(*disk).lines, table.size());

    // Only descriptors and devices are kept.
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_TRUE(std::filesystem::is_empty(tmp_));
    EXPECT_EQ(read_file(lab_.path("mode")), "600\n");
    for (const vmdkdesc_t* member : disk->vmdkdesc.vmdk_ancestor_array) {
        EXPECT_TRUE(member->gtbuf.empty());
        EXPECT_TRUE(member->extentdesc[0]->graindir.gd_entry.empty());
    }
    EXPECT_EQ(disk->vmdkdesc.vmdk_ancestor_array.back()->createtype, CT_MONOLITHIC_FLAT);

    const std::string name = disk->dm_name;
    disk.reset();
    EXPECT_THAT(loop_guard_t::left_below(directory_), IsEmpty());
    EXPECT_THAT(read_file(lab_.path("calls")),
                MatchesRegex("create " + name + " " + tmp_ + "/vdsk-[-0-9a-f]+.corstorage\nremove " + name + "\n"));
}

// Lets a device have few lines for as long as it lives.
struct few_lines_t {
    explicit few_lines_t(std::uint64_t lines) { vdsk_mapping_lines = lines; }
    ~few_lines_t() { vdsk_mapping_lines = usual; }
    few_lines_t(const few_lines_t&) = delete;
    few_lines_t& operator=(const few_lines_t&) = delete;

    const std::uint64_t usual = vdsk_mapping_lines;
};

TEST_F(vdsk, JoinedDevicesAreRemovedInReverseWhereverLoadingFails) {
    const few_lines_t few(3);
    for (const std::string part : {"0", "2", "joining", "none"}) {
        write_file(lab_.path("fail-create-" + part), "");
        std::filesystem::remove(lab_.path("calls"));
        std::unique_ptr<vdskdesc_t> disk;
        EXPECT_EQ(number_of(vdsk_setup(lab_.path("head.vmdk"), &disk)), part == "none" ? 0 : 5) << part;
        disk.reset();
        EXPECT_THAT(loop_guard_t::left_below(directory_), IsEmpty());
        EXPECT_TRUE(std::filesystem::is_empty(tmp_));
        std::filesystem::remove(lab_.path("fail-create-" + part));

        // Each device created is removed, and before any that is older.
        std::istringstream calls(read_file(lab_.path("calls")));
        std::vector<std::string> loaded;
        std::size_t most = 0;
        std::string verb;
        std::string name;
        std::string rest;
        for (bool failed = false; calls >> verb >> name && std::getline(calls, rest);) {
            EXPECT_FALSE(failed && verb == "create") << name;
            if (verb == "create") {
                failed = name.ends_with("-" + part) || (part == "joining" && rest.ends_with("joining.corstorage"));
                if (!failed)
                    loaded.push_back(name);
                most = std::max(most, loaded.size());
            } else {
                ASSERT_FALSE(loaded.empty());
                EXPECT_EQ(name, loaded.back());
                loaded.pop_back();
            }
        }
        EXPECT_THAT(loaded, IsEmpty());
        EXPECT_GE(most, part == "0" ? 0U : 2U) << part;
    }
}

// Wherever descriptors run out, the number says so and nothing is left.
TEST_F(vdsk, RunningOutOfDescriptors) {
    tool_paths().dmsetup = "/bin/true";  // the limit holds for the tool as well, and a shell needs more
    const std::size_t used = open_descriptors();
    bool complete = false;
    for (std::size_t limit = used; !complete && limit < used + 40; ++limit) {
        const int status = in_child([&] {
            const rlimit nofile{limit, limit};
            setrlimit(RLIMIT_NOFILE, &nofile);
            std::unique_ptr<vdskdesc_t> disk;
            return number_of(vdsk_setup(lab_.path("head.vmdk"), &disk));
        });
        complete = status == 0;
        EXPECT_TRUE(complete || status == EMFILE) << status << " with " << limit;
        EXPECT_THAT(loop_guard_t::left_below(directory_), IsEmpty());
        EXPECT_TRUE(std::filesystem::is_empty(tmp_));
    }
    EXPECT_TRUE(complete);
}

TEST_F(vdsk, TableThatCannotBeWrittenFailsTheSetUpOnly) {
    const int status = in_child([&] {
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit nothing{100, 100};
        std::unique_ptr<vdskdesc_t> disk;
        setrlimit(RLIMIT_FSIZE, &nothing);
        return number_of(vdsk_setup(lab_.path("head.vmdk"), &disk));
    });
    EXPECT_EQ(status, EFBIG);
    EXPECT_THAT(loop_guard_t::left_below(directory_), IsEmpty());
    EXPECT_TRUE(std::filesystem::is_empty(tmp_));
}

TEST_F(vdsk, LoopDevicesAreReleasedThoughTheMappingStays) {
    std::unique_ptr<vdskdesc_t> disk;
    ASSERT_EQ(vdsk_setup(lab_.path("head.vmdk"), &disk), nullptr);
    const std::string name = disk->dm_name;
    write_file(lab_.path("fail-remove"), "");
    testing::internal::CaptureStdout();
    vdsk_teardown(disk.get());
    EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("ERROR"));
    EXPECT_THAT(read_file(lab_.path("calls")), HasSubstr("remove " + name + "\nremove -f " + name + "\n"));
    EXPECT_THAT(loop_guard_t::left_below(directory_), IsEmpty());
    EXPECT_EQ(disk->dm_name, "");

    // A second call finds nothing left to do.
    const std::string calls = read_file(lab_.path("calls"));
    vdsk_teardown(disk.get());
    EXPECT_EQ(read_file(lab_.path("calls")), calls);
}

}  // namespace
}  // namespace mirador
