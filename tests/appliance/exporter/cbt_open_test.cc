// SPDX-License-Identifier: Apache-2.0
// Opens of changed-block files, with real loop devices; the mapping is a table that a script has been given.
#include "appliance/exporter/cbt_open.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <thread>

#include "appliance/exporter/cbt_device.h"
#include "appliance/exporter/cbt_script.h"
#include "appliance/exporter/shadow_fixture.h"
#include "appliance/exporter/vm_proxy_api.h"
#include "appliance/lib/corcbt.h"
#include "controller/lib/controller_url.h"
#include "lib/clock.h"
#include "lib/error_hash.h"
#include "tests/lib/error_number.h"
#include "tests/support/fake_controller.h"
#include "tests/support/loop_guard.h"

namespace mirador {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::int64_t mib = 1 << 20;

// What an open meets. The defaults are those of one that goes well.
struct world_t {
    std::string vm = R"([{"uuid": "564d7a1b-2c3d-4e5f-6071-8293a4b5c6d7", "name": "vm", "use_cbt": 1}])";
    std::string record = R"([{"vhost_uuid": "564d7a1b-2c3d-4e5f-6071-8293a4b5c6d7", "name": "a-corcbt.vmdk",)"
                         R"( "changeid": "a/1", "changeid_base": "a/1", "corcbt_size_percentage": 1}])";
    std::string script = "exit 0";  // behind the results
    std::string results = "changeid: a/2\nlength: 65536\nstart: 0\nlength: 4096\nstart: 1048576\n";
    std::string dmsetup = "exit 0";  // behind the loading
    std::int64_t promised = mib;
    std::int64_t frozen_size = 4 * mib;  // the disk's
    bool has_flat = true;
};

class cbt_open_test : public shadow_fixture_t {
  protected:
    void SetUp() override {
        if (!loop_guard_t::available())
            GTEST_SKIP() << "no loop devices here";
        for (const char* name : {"tmp", "mapper", "export"})
            std::filesystem::create_directories(root_ + "/" + name);
        tool_paths_t& tools = tool_paths();
        tools.tmp_dir = root_ + "/tmp";
        tools.mapper_dir = root_ + "/mapper";
        tools.export_root = root_ + "/export";
        make_file("disk.vmdk",
                  "# Disk DescriptorFile\nversion=1\nCID=fffffffe\nparentCID=ffffffff\ncreateType=\"monolithicFlat\"\n"
                  "RW 8192 FLAT \"disk-flat.vmdk\" 0\nddb.adapterType = \"lsilogic\"\n");
        make_file("disk-flat.vmdk", std::string(4 * mib, 'x'));
    }
    ~cbt_open_test() override {
        vm_proxy_release_all();
        tool_paths() = saved_;
        allow_corcbt_opens(true);
    }

    void answer(const std::string& object, const std::string& body) { controller_.answer(object, body); }

    // Makes the world and exports the file.
    void be(const world_t& world) {
        const std::string uuid = "564d7a1b-2c3d-4e5f-6071-8293a4b5c6d7";
        answer("hvconfig", R"([{"hostname": "hv1", "login_name": "root", "password": "word", "hv_port": 443}])");
        answer("vhost?vm_uuid=" + uuid, world.vm);
        answer("vdisk?vhost_uuid=" + uuid + "&name=a-corcbt.vmdk", world.record);
        for (const char* object : {"vdisk", "event", "vmconfig", "alert"})
            answer(object, "{}");
        make_file("results", world.results);
        tool_paths().cbt_getblocklist =
            write_script(root_ + "/script", "while [ \"$1\" != --resultsfile ]; do shift; done\ncd " + root_ +
                                                "\necho >> asked\n/bin/cat results > \"$2\"\n" + world.script + "\n");
        tool_paths().dmsetup = write_script(root_ + "/dmsetup", "cd " + root_ + R"(
            echo "$1" >> calls
            if [ $1 = create ]; then /bin/cp "$3" table; : > mapper/$2; )" +
                                                                    world.dmsetup + R"(; fi
            [ $1 = remove ] && /bin/rm -f mapper/*
            exit 0)");
        std::filesystem::remove_all(root_ + "/export/vm");
        if (world.has_flat)
            for (const char* name : {"a-flat.vmdk", "a-flat.vmdk-cbt-losetup"})
                make_file(std::string("export/vm/") + name, std::string(4 * mib, 'x'));
        vm_proxy_touch_t touch;
        touch.link_path = root_ + "/disk.vmdk";
        touch.stat_path = root_ + "/disk-flat.vmdk";
        touch.vm_uuid = uuid;
        touch.hv_name = "hv1";
        touch.type = VM_PROXY_HEADER_VMDK_CORCBT;
        touch.size = world.promised;
        std::filesystem::create_directories(shadow_ + "/vm");
        EXPECT_EQ(vm_proxy_touch(shadow_ + path_, touch), nullptr);
        touch.type = VM_PROXY_HEADER_VMDK_FLAT;
        touch.size = world.frozen_size;
        EXPECT_EQ(vm_proxy_touch(shadow_ + "/vm/a-flat.vmdk", touch), nullptr);
    }

    std::unique_ptr<fuse_fh_t> open(const std::string& path) const {
        std::unique_ptr<fuse_fh_t> fh;
        const bool opened = vm_proxy_open(path, shadow_path(path), &fh) == nullptr;
        EXPECT_EQ(opened, fh != nullptr);
        return fh;
    }
    void release(std::unique_ptr<fuse_fh_t> fh) const { EXPECT_EQ(vm_proxy_release(path_, std::move(fh)), nullptr); }

    // The posts to an object since the last call.
    std::vector<std::string> posted(const std::string& object) {
        std::vector<std::string> bodies = controller_.posted(object);
        std::size_t& seen = seen_[object];
        bodies.erase(bodies.begin(), bodies.begin() + static_cast<std::ptrdiff_t>(std::exchange(seen, bodies.size())));
        return bodies;
    }
    static std::vector<std::string> names_in(const std::string& dir) {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(dir))
            names.push_back(entry.path().filename());
        return names;
    }
    void expect_nothing_left() const {
        EXPECT_THAT(loop_guard_t::left_below(root_), IsEmpty());
        EXPECT_THAT(names_in(root_ + "/tmp"), IsEmpty());
        EXPECT_THAT(names_in(root_ + "/mapper"), IsEmpty());
    }

    const tool_paths_t saved_ = tool_paths();
    fake_controller_t& controller_ = fake_controller_t::fresh(controller_get_url);
    const fast_clock_t clock_{100};  // tools are waited for in steps of a second
    const loop_guard_t loops_;
    const std::string path_ = "/vm/a-corcbt.vmdk";
    std::map<std::string, std::size_t> seen_;
};

TEST_F(cbt_open_test, HeadThenChangesThenZerosUpToThePromise) {
    be({});
    std::unique_ptr<fuse_fh_t> fh = open(path_);
    ASSERT_NE(fh, nullptr) << error_hash_get(path_)->string;
    const cbt_device_t& device = *fh->cbt;
    EXPECT_EQ(read_file(root_ + "/table"), "0 1 linear " + device.cbt_hdr_loop_dev + " 0\n" +            //
                                               "1 128 linear " + device.cbt_main_loop_dev + " 0\n" +     //
                                               "129 8 linear " + device.cbt_main_loop_dev + " 2048\n" +  //
                                               "137 1911 linear " + device.cbt_zero_loop_dev + " 0\n");
    EXPECT_TRUE(fh->direct_io && fh->collect_stats && !fh->cbt_losetup);
    cbt_file_header_t header{};
    cbt_extent_list_t extents;
    ASSERT_EQ(read_corcbt_header(device.cbt_hdr_loop_dev, &header, &extents), nullptr);
    EXPECT_EQ(extents.size(), 2U);
    EXPECT_STREQ(header.changeid, "a/1") << "the changes are those since then";
    EXPECT_EQ(header.corcbt_file_size, 512 + 65536 + 4096);
    EXPECT_THAT(loop_guard_t::backing_file(device.cbt_main_loop_dev), HasSubstr("a-flat.vmdk-cbt-losetup"));
    EXPECT_THAT(names_in(root_ + "/tmp"), IsEmpty()) << "work files are gone";
    EXPECT_THAT(posted("vdisk"), ElementsAre(HasSubstr("a\\/2")));

    std::unique_ptr<fuse_fh_t> second = open(path_ + "-cbt-losetup");
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->cbt, fh->cbt);
    EXPECT_FALSE(second->cbt_losetup);
    EXPECT_EQ(read_file(root_ + "/asked"), "\n");
    release(std::move(second));
    EXPECT_EQ(vm_proxy_evict(true)->number, EMFILE) << "it is open";
    EXPECT_FALSE(names_in(root_ + "/mapper").empty());
    release(std::move(fh));
    EXPECT_EQ(vm_proxy_evict(true), nullptr);
    expect_nothing_left();
}

TEST_F(cbt_open_test, DeviceGoesWithItsLastReader) {
    be({});
    std::unique_ptr<fuse_fh_t> fh = open(path_);
    ASSERT_NE(fh, nullptr);
    vm_proxy_release_all();
    EXPECT_EQ(loop_guard_t::bound_below(root_).size(), 3U);
    release(std::move(fh));
    expect_nothing_left();
}

TEST_F(cbt_open_test, DeviceThatCannotBeOpenedAgainIsTakenApart) {
    world_t world;
    world.record = R"([{"vhost_uuid": "564d", "name": "a-corcbt.vmdk", "changeid_incr": "a/1"}])";
    be(world);
    release(open(path_));
    EXPECT_THAT(posted("vdisk"), ElementsAre(HasSubstr("a\\/2")));
    std::filesystem::remove_all(root_ + "/mapper");
    std::filesystem::create_directory(root_ + "/mapper");
    EXPECT_EQ(open(path_), nullptr);
    expect_nothing_left();
    EXPECT_THAT(posted("vdisk"), ElementsAre(HasSubstr("uninitialized")));
}

TEST_F(cbt_open_test, FileThatIsFullNeedsNoZeros) {
    world_t world;
    world.promised = 4096;
    world.results = "changeid: a/2\nlength: 3584\nstart: 512\n";
    be(world);
    std::unique_ptr<fuse_fh_t> fh = open(path_);
    ASSERT_NE(fh, nullptr);
    EXPECT_EQ(fh->cbt->cbt_zero_loop_dev, "");
    EXPECT_THAT(read_file(root_ + "/table"), HasSubstr("1 7 linear " + fh->cbt->cbt_main_loop_dev + " 1\n"));
    release(std::move(fh));
}

// The set-up waits for what others must be able to do: open, release and evict other files.
TEST_F(cbt_open_test, OtherFilesAreOpenedMeanwhile) {
    const std::string other = expose("a.vmx", VM_PROXY_HEADER_VMX, make_file("a.vmx", "text"));
    world_t world;
    world.script = "echo > running; for i in 1 2 3 4 5 6 7 8 9 10; do [ -e opened ] && exit 0; sleep 1; done; exit 9";
    be(world);
    std::thread opener([&] {
        while (!std::filesystem::exists(root_ + "/running"))
            std::this_thread::yield();
        release(open(other));
        EXPECT_EQ(vm_proxy_evict(true), nullptr) << "the file that is being set up is no victim";
        EXPECT_EQ(vm_proxy_evict(true)->number, EMFILE);
        make_file("opened", "");
    });
    std::unique_ptr<fuse_fh_t> fh = open(path_);
    opener.join();
    ASSERT_NE(fh, nullptr) << error_hash_get(path_)->string;
    release(std::move(fh));
}

TEST_F(cbt_open_test, FailureOfAnyStepLeavesNothing) {
    struct {
        const char* what;
        std::function<void(world_t*)> change;
        errnum_t number;
        const char* text;
        const char* posted;  // the object told besides
    } const cases[] = {
        {"unknown VM", [](world_t* w) { w->vm = "[]"; }, EINVAL, "VM info not available for path /vm/a-corcbt.vmdk",
         ""},
        {"untracked VM", [](world_t* w) { w->vm = R"([{"uuid": "564d", "name": "vm", "use_cbt": 0}])"; }, EINVAL,
         "Changed Block Tracking disabled, invalid path /vm/a-corcbt.vmdk", ""},
        {"disk that has grown", [](world_t* w) { w->frozen_size = 5 * mib; }, EAGAIN,
         "a-flat.vmdk: its size has changed", ""},
        {"no disk", [](world_t* w) { w->has_flat = false; }, ENOENT, "a-rdm.vmdk", ""},
        {"tracking must start anew", [](world_t* w) { w->script = "exit 8"; }, 8, "script", "event"},
        {"script fails", [](world_t* w) { w->script = "exit 3"; }, 3, "script", ""},
        {"no change id", [](world_t* w) { w->script = "exit 5"; }, ERR_UNMATCHED, "Unexpected new changeid",
         "vmconfig"},
        {"no change id where one is needed",
         [](world_t* w) {
             w->script = "exit 5";
             w->record = R"([{"vhost_uuid": "564d", "name": "a-corcbt.vmdk", "changeid_incr": "a/1"}])";
         },
         5, "script", "vdisk"},
        {"results that are none", [](world_t* w) { w->results = "start: 0\n"; }, ERR_INVALID_ARG, "Invalid cbt results",
         ""},
        {"no results",
         [](world_t* w) {
             w->results = "# nothing\n";
             w->record = R"([{"vhost_uuid": "564d", "name": "a-corcbt.vmdk", "changeid_base": "a/1"}])";
         },
         ERR_INVALID_ARG, "Invalid cbt results", ""},
        {"another tracking", [](world_t* w) { w->results = "changeid: b/9\n"; }, ERR_UNMATCHED,
         "Unexpected new changeid", "vmconfig"},
        {"change beyond the disk", [](world_t* w) { w->results = "changeid: a/2\nlength: 512\nstart: 4194304\n"; },
         EINVAL, "", ""},
        {"changes that overlap",
         [](world_t* w) { w->results = "changeid: a/2\nlength: 1024\nstart: 0\nlength: 512\nstart: 512\n"; }, EINVAL,
         "", ""},
        {"more than promised", [](world_t* w) { w->promised = 65536; }, EFBIG, "65536 are exported", "vdisk"},
        {"mapping is refused", [](world_t* w) { w->dmsetup = "/bin/rm mapper/*; exit 6"; }, 6, "dmsetup", ""},
        {"mapping without a device", [](world_t* w) { w->dmsetup = "/bin/rm mapper/*"; }, ENOENT, "disk.vmdk", ""},
        {"nothing is wrong", [](world_t*) {}, 0, "", "vdisk"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        world_t world;
        c.change(&world);
        be(world);
        error_hash_save(path_, nullptr);
        std::unique_ptr<fuse_fh_t> fh = open(path_);
        const errdesc_t* e = error_hash_get(path_);
        EXPECT_EQ(number_of(e), c.number) << (e == nullptr ? "" : e->string);
        EXPECT_THAT(e == nullptr ? "" : e->string, HasSubstr(c.text));
        for (const char* object : {"event", "vmconfig", "vdisk"})
            EXPECT_EQ(posted(object).empty(), std::string(c.posted) != object) << object;
        if (fh != nullptr)
            release(std::move(fh));
        else
            expect_nothing_left();
    }
}

TEST_F(cbt_open_test, NotAtTheDaemonsEndNorWithASingleThread) {
    be({});
    cbt_script_hurry();
    EXPECT_EQ(open(path_), nullptr);
    EXPECT_EQ(error_hash_get(path_)->number, ERR_CANCELLED);
    _cbt_script_unhurry();
    allow_corcbt_opens(false);
    EXPECT_EQ(open(path_), nullptr);
    EXPECT_EQ(error_hash_get(path_)->number, ERR_NOT_SUPPORTED);
}

}  // namespace
}  // namespace mirador
