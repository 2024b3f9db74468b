// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/cor_namespace.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <thread>
#include <vector>

#include "appliance/lib/registry.h"
#include "lib/clock.h"
#include "lib/tool_paths.h"
#include "lib/walker.h"
#include "tests/appliance/lib/record_bytes.h"
#include "tests/lib/temp_dir.h"

namespace mirador {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr std::uint64_t ours = 7;
constexpr std::uint64_t theirs = 8;

errnum_t number_of(const errdesc_t* e) {
    return e == nullptr ? 0 : e->number;
}

class cor_namespace_test : public testing::Test {
  protected:
    cor_namespace_test() {
        struct statvfs st = {};
        EXPECT_EQ(statvfs(dir.path().c_str(), &st), 0);
        block = static_cast<std::int64_t>(st.f_bsize / 512 * 512);
        fs::create_directory(root);
        open_dir();
    }
    void open_dir() {
        ns.reset();
        ASSERT_EQ(cns_create(root, "/links", std::nullopt, CNS_OPT_USE_DIR | CNS_OPT_WRITABLE, 11, 12, &ns), nullptr);
    }

    // A node of that owner, generation and size; a path that ends with a slash is a directory's.
    void create(std::string path, std::uint64_t owner, std::uint64_t generation, std::int64_t size = 0) {
        cns_node_t node{.owner = owner, .generation = generation, .time = 1000, .permissions = 0755, .size = size};
        if (path.ends_with('/')) {
            node.file_type = S_IFDIR;
            path.pop_back();
        }
        ASSERT_EQ(cns_create_node(ns.get(), path, node), nullptr) << path;
    }
    cns_attrs_t attrs(const std::string& path) {
        cns_attrs_t found{};
        EXPECT_EQ(cns_get_attrs(ns.get(), path, &found, nullptr, 0), nullptr) << path;
        return found;
    }
    bool exists(const std::string& path) { return fs::exists(fs::symlink_status(root + path)); }
    std::int64_t used() { return ns->fs_blocks_used; }
    // What is there, counted anew.
    std::int64_t recount() {
        std::unique_ptr<cns_handle_t> again;
        EXPECT_EQ(cns_create(root, "", std::nullopt, CNS_OPT_USE_DIR, 0, 0, &again), nullptr);
        return again->fs_blocks_used;
    }
    std::set<std::string> list(const std::string& path) {
        dir_ptr listing;
        EXPECT_EQ(cns_opendir(ns.get(), path, &listing), nullptr);
        std::set<std::string> names;
        while (const auto name = cns_readdir(ns.get(), listing))
            names.insert(*name);
        cns_closedir(ns.get(), &listing);
        EXPECT_EQ(listing, nullptr);
        return names;
    }

    const temp_dir_t dir;
    const std::string root = dir / "root";
    std::int64_t block = 0;  // bytes
    std::unique_ptr<cns_handle_t> ns;
};

TEST_F(cor_namespace_test, PathsAreTranslated) {
    struct {
        const char* path;
        std::string place;
    } const cases[] = {{"/", "/."}, {"/a/b", "/a/b"}, {"a", "/a"}, {"//a", "//a"}, {"", "/"}};
    for (const auto& c : cases) {
        cns_pbuf_t pbuf;
        EXPECT_EQ(cns_translate_path(ns.get(), c.path, &pbuf), root + c.place);
        EXPECT_EQ(cns_translate_symlink_path(ns.get(), c.path, &pbuf), "/links" + c.place);
    }
}

TEST_F(cor_namespace_test, PathsOutsideAreRefusedAndNothingHappens) {
    write_file(dir / "outside", "kept");
    fs::create_directory(dir / "lost");
    create("/a", ours, 1);
    for (const char* path :
         {"/../outside", "../outside", "/a/../../outside", "/..", "/.corvantis.dir", "/a/.corvantis.lck"}) {
        cns_handle_t* const n = ns.get();
        dir_ptr listing;
        std::time_t mtime = 0;
        const errdesc_t* e = cns_check_path(n, path);
        ASSERT_NE(e, nullptr) << path;
        EXPECT_THAT(std::string(e->string), StartsWith("Namespace path refused, "));
        EXPECT_THAT(std::string(e->string), EndsWith(std::string(": ") + path));
        EXPECT_EQ(number_of(cns_create_node(n, path, {})), EINVAL) << path;
        EXPECT_EQ(number_of(cns_mkdirp(n, std::string(path) + "/", 0, 0755, ours, 1)), EINVAL) << path;
        EXPECT_EQ(number_of(cns_get_attrs(n, path, nullptr, nullptr, 0)), EINVAL) << path;
        EXPECT_EQ(number_of(cns_proxy_mtime(n, path, &mtime)), EINVAL) << path;
        EXPECT_EQ(number_of(cns_opendir(n, path, &listing)), EINVAL) << path;
        EXPECT_EQ(number_of(cns_unlink(n, path)), EINVAL) << path;
        EXPECT_EQ(number_of(cns_rmdir(n, path, true)), EINVAL) << path;
        EXPECT_EQ(number_of(cns_symlink(n, "/x", path)), EINVAL) << path;
        EXPECT_EQ(number_of(cns_rename(n, path, "/b")), EINVAL) << path;
        EXPECT_EQ(number_of(cns_rename(n, "/a", path)), EINVAL) << path;
        EXPECT_EQ(number_of(cns_lock(n, path)), EINVAL) << path;
        EXPECT_EQ(number_of(cns_unlock(n, path)), EINVAL) << path;
        EXPECT_EQ(number_of(cns_prune(n, path, ours, 9, true)), EINVAL) << path;
    }
    EXPECT_EQ(read_file(dir / "outside"), "kept");
    EXPECT_EQ(list("/"), (std::set<std::string>{".", "..", "a"}));
    EXPECT_EQ(cns_check_path(ns.get(), "/..a/b..c/..."), nullptr);
    EXPECT_EQ(number_of(cns_check_path(ns.get(), "/" + std::string(4000, 'a'))), ENAMETOOLONG);
}

TEST_F(cor_namespace_test, FilesHoldTheLayout) {
    const char application[] = "header";
    const cns_node_t node{.owner = 0x1112131415161718,
                          .generation = 0x2122232425262728,
                          .time = 1'600'000'000,
                          .file_type = S_IFREG | 0777,
                          .permissions = S_IFDIR | 0640,
                          .size = 5'000'000'000,
                          .app_hdr_type = 3,
                          .app_hdr = application,
                          .app_hdr_size = sizeof application};
    ASSERT_EQ(cns_create_node(ns.get(), "/f", node), nullptr);
    record_bytes_t expected(4096);
    expected.number(0, 4, 0x121109BB).number(4, 4, 1).number(8, 4, 0x20100119).number(12, 4, 1);
    expected.number(16, 4, 3).number(20, 4, sizeof application);
    expected.number(24, 8, 0x1112131415161718).number(32, 8, 0x2122232425262728);
    expected.number(56, 4, 0100640).number(60, 4, 1).number(64, 4, 11).number(68, 4, 12).number(84, 8, 5'000'000'000);
    expected.number(96, 8, static_cast<std::uint64_t>(5'000'000'000 / block + 1));
    for (const std::size_t time : {104U, 112U, 120U})
        expected.number(time, 4, 1'600'000'000);
    expected.text(144, "header");
    EXPECT_EQ(read_file(root + "/f"), expected.bytes());

    char read[8] = "XXXXXXX";
    cns_attrs_t found{};
    ASSERT_EQ(cns_get_attrs(ns.get(), "/f", &found, read, 3), nullptr);
    EXPECT_STREQ(read, "heaXXXX");
    EXPECT_EQ(bytes_of(found), expected.bytes().substr(8, 128));
}

TEST_F(cor_namespace_test, SizesCountWholeBlocksAndOne) {
    create("/empty", ours, 1, 0);
    create("/short", ours, 1, block - 1);
    create("/exact", ours, 1, block);
    EXPECT_EQ(std::uint64_t{attrs("/empty").statb.blocks}, 1U);
    EXPECT_EQ(std::uint64_t{attrs("/short").statb.blocks}, 1U);
    EXPECT_EQ(std::uint64_t{attrs("/exact").statb.blocks}, 2U);
    EXPECT_EQ(used(), 4);
    EXPECT_EQ(cns_get_fs_blocks_used(ns.get()), 4 / (block / 512));
}

TEST_F(cor_namespace_test, GenerationsNeverGoBackAndTimesAreKept) {
    const manual_clock_t clock(5000);
    cns_node_t node{.owner = ours, .generation = 9, .permissions = 0644};
    ASSERT_EQ(cns_create_node(ns.get(), "/f", node), nullptr);
    EXPECT_EQ(std::int32_t{attrs("/f").statb.ctime_sec}, 5000);
    node.time = 100;
    node.generation = 3;
    ASSERT_EQ(cns_create_node(ns.get(), "/f", node), nullptr);
    EXPECT_EQ(std::uint64_t{attrs("/f").generation}, 9U);
    EXPECT_EQ(std::int32_t{attrs("/f").statb.atime_sec}, 100);
    node.time = 0;
    node.generation = UINT64_MAX;
    ASSERT_EQ(cns_create_node(ns.get(), "/f", node), nullptr);
    EXPECT_EQ(std::uint64_t{attrs("/f").generation}, UINT64_MAX);
    for (const std::int32_t time :
         {std::int32_t{attrs("/f").statb.atime_sec}, std::int32_t{attrs("/f").statb.mtime_sec},
          std::int32_t{attrs("/f").statb.ctime_sec}})
        EXPECT_EQ(time, 100);
}

TEST_F(cor_namespace_test, DirectoriesKeepTheirHeaderInside) {
    ASSERT_EQ(cns_mkdirp(ns.get(), "//a/b", 50, 0700, ours, 4), nullptr);
    EXPECT_TRUE(fs::is_directory(root + "/a"));
    EXPECT_FALSE(exists("/a/b"));
    ASSERT_EQ(cns_mkdirp(ns.get(), "a/b/", 50, 0700, ours, 4), nullptr);
    EXPECT_EQ(read_file(root + "/a/b/.corvantis.dir").size(), 4096U);
    EXPECT_EQ(list("/a"), (std::set<std::string>{".", "..", "b"}));
    EXPECT_EQ(used(), 2);

    const cns_attrs_t found = attrs("/a/b");
    EXPECT_EQ(std::uint64_t{found.owner}, ours);
    EXPECT_EQ(std::uint32_t{found.statb.mode}, static_cast<std::uint32_t>(S_IFDIR | 0700));
    EXPECT_EQ(std::uint32_t{found.statb.nlink}, 2U);  // the directory's own
    EXPECT_EQ(std::uint64_t{attrs("/").owner}, 0U);
    EXPECT_TRUE(S_ISDIR(std::uint32_t{attrs("/").statb.mode}));

    write_file(root + "/a/file", "");
    EXPECT_EQ(number_of(cns_mkdirp(ns.get(), "/a/file/x/", 0, 0700, ours, 4)), ENOTDIR);
}

TEST_F(cor_namespace_test, TimesOfHeaderFiles) {
    create("/f", ours, 1);
    create("/d/", ours, 1);
    const timespec times[] = {{.tv_sec = 1, .tv_nsec = 0}, {.tv_sec = 77, .tv_nsec = 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, (root + "/f").c_str(), times, 0), 0);
    ASSERT_EQ(utimensat(AT_FDCWD, (root + "/d/.corvantis.dir").c_str(), times, 0), 0);
    for (const char* path : {"/f", "/d"}) {
        std::time_t mtime = -1;
        ASSERT_EQ(cns_proxy_mtime(ns.get(), path, &mtime), nullptr);
        EXPECT_EQ(mtime, 77);
    }
    std::time_t mtime = -1;
    EXPECT_EQ(number_of(cns_proxy_mtime(ns.get(), "/missing", &mtime)), ENOENT);
    EXPECT_EQ(mtime, 0);
}

TEST_F(cor_namespace_test, LinksShowThemselves) {
    create("/f", ours, 1, 3 * block);
    ASSERT_EQ(cns_symlink(ns.get(), "f", "/link"), nullptr);
    EXPECT_TRUE(S_ISLNK(std::uint32_t{attrs("/link").statb.mode}));
    EXPECT_EQ(std::uint64_t{attrs("/link").owner}, 0U);
    const errdesc_t* e = cns_symlink(ns.get(), "f", "/link");
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(std::string(e->string), "symlink failed: f, /link, f, " + root + "/link");

    ASSERT_EQ(cns_unlink(ns.get(), "/link"), nullptr);  // takes nothing of its target off the count
    EXPECT_EQ(used(), 4);
    ASSERT_EQ(cns_unlink(ns.get(), "/f"), nullptr);
    EXPECT_EQ(used(), 0);
    EXPECT_EQ(number_of(cns_unlink(ns.get(), "/f")), ENOENT);
}

TEST_F(cor_namespace_test, DirectoriesGoWhenTheyAreEmpty) {
    create("/d/", ours, 1);
    ASSERT_EQ(cns_lock(ns.get(), "/d"), nullptr);
    const errdesc_t* e = cns_lock(ns.get(), "/d");
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(std::string(e->string), root + "/d/.corvantis.lck: File exists");
    ASSERT_EQ(cns_unlock(ns.get(), "/d"), nullptr);
    EXPECT_EQ(number_of(cns_unlock(ns.get(), "/d")), ENOENT);
    ASSERT_EQ(cns_lock(ns.get(), "/d"), nullptr);

    create("/d/f", ours, 1, block);
    e = cns_rmdir(ns.get(), "/d", false);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->number, ENOTEMPTY);
    ASSERT_EQ(cns_unlink(ns.get(), "/d/f"), nullptr);
    EXPECT_EQ(cns_rmdir(ns.get(), "/d", false), nullptr);
    EXPECT_FALSE(exists("/d"));
    EXPECT_EQ(used(), 0);
    EXPECT_EQ(number_of(cns_rmdir(ns.get(), "/d", false)), ENOENT);
    EXPECT_EQ(cns_rmdir(ns.get(), "/d", true), nullptr);
}

TEST_F(cor_namespace_test, ForcedRemovalTakesEverythingOffTheCount) {
    create("/kept", ours, 1, block);
    create("/d/", ours, 1);
    create("/d/..x/", ours, 1);
    create("/d/..x/f", ours, 1, 9 * block);
    ASSERT_EQ(cns_symlink(ns.get(), root, "/d/link"), nullptr);
    write_file(root + "/d/garbage", "x");
    ASSERT_EQ(cns_rmdir(ns.get(), "/d", true), nullptr);
    EXPECT_FALSE(exists("/d"));
    EXPECT_TRUE(exists("/kept"));
    EXPECT_EQ(used(), 2);
}

TEST_F(cor_namespace_test, RenamedNodesReplaceOthers) {
    create("/a", ours, 1, block);
    create("/b", theirs, 2, 5 * block);
    ASSERT_EQ(cns_rename(ns.get(), "/a", "/b"), nullptr);
    EXPECT_EQ(std::uint64_t{attrs("/b").owner}, ours);
    EXPECT_EQ(used(), 2);
    ASSERT_EQ(cns_rename(ns.get(), "/b", "b"), nullptr);
    EXPECT_EQ(used(), 2);
    const errdesc_t* e = cns_rename(ns.get(), "/a", "/c");
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(std::string(e->string), "Cannot rename /a to /c");
    EXPECT_EQ(e->number, ENOENT);
}

TEST_F(cor_namespace_test, PruningRemovesWhatAnUpdateDidNotRefresh) {
    create("/d/", ours, 5);
    create("/d/stale", ours, 4);
    create("/d/fresh", ours, 5);
    create("/d/newer", ours, 6);
    create("/d/foreign", theirs, 1);
    create("/d/stale_dir/", ours, 4);
    create("/d/stale_dir/fresh", ours, 9, 3 * block);
    create("/d/foreign_dir/", theirs, 1);
    create("/d/foreign_dir/stale", ours, 4);
    ASSERT_EQ(cns_symlink(ns.get(), "stale", "/d/dangling"), nullptr);
    ASSERT_EQ(cns_symlink(ns.get(), "fresh", "/d/link"), nullptr);
    ASSERT_EQ(cns_lock(ns.get(), "/d"), nullptr);

    ASSERT_EQ(cns_prune(ns.get(), "/d", ours, 5, false), nullptr);
    EXPECT_EQ(list("/d"), (std::set<std::string>{".", "..", "fresh", "newer", "foreign", "foreign_dir", "link"}));
    EXPECT_TRUE(exists("/d/foreign_dir/stale"));
    ASSERT_EQ(cns_prune(ns.get(), "/", ours, 5, true), nullptr);
    EXPECT_FALSE(exists("/d/foreign_dir/stale"));
    EXPECT_EQ(used(), recount());

    write_file(root + "/d/garbage", "");
    EXPECT_EQ(number_of(cns_prune(ns.get(), "/", ours, 5, true)), 126);
    EXPECT_EQ(number_of(cns_prune(ns.get(), "/missing", ours, 5, true)), ENOENT);
}

TEST_F(cor_namespace_test, FailedWritesLeaveTheOldHeader) {
    create("/f", ours, 1, 7 * block);
    fs::create_directory(root + "/blocked");
    const errdesc_t* e = cns_create_node(ns.get(), "/blocked", {.permissions = 0644});
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->number, EISDIR);
    EXPECT_THAT(std::string(e->string), StartsWith("rename " + root + "/blocked.tmp"));
    EXPECT_THAT(std::string(e->string), EndsWith(" to " + root + "/blocked failed"));
    e = cns_create_node(ns.get(), "/missing/f", {.permissions = 0644});
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(std::string(e->string), root + "/missing/f.tmpXXXXXX: No such file or directory");
    EXPECT_EQ(number_of(cns_create_node(ns.get(), "/" + std::string(255, 'n'), {})), ENAMETOOLONG);
    EXPECT_EQ(list("/"), (std::set<std::string>{".", "..", "f", "blocked"}));
    EXPECT_GE(used(), recount());
    ASSERT_EQ(cns_unlink(ns.get(), "/f"), nullptr);
}

TEST_F(cor_namespace_test, FilesThatAreNoHeadersAreErrorsOrLeftAlone) {
    create("/good", ours, 1, block);
    create("/d/", ours, 1, block);
    const std::string good = read_file(root + "/good");
    record_bytes_t bad(4096);
    bad.text(0, good).number(4, 4, 2);
    write_file(root + "/garbage", std::string(5000, 'g'));
    write_file(root + "/version", bad.bytes());
    bad.text(0, good).number(96, 8, 1ULL << 60);
    write_file(root + "/blocks", bad.bytes());
    write_file(root + "/short", good.substr(0, 4095));
    fs::create_symlink(root + "/good", root + "/link");
    ASSERT_EQ(mkfifo((root + "/fifo").c_str(), 0600), 0);
    open_dir();
    EXPECT_EQ(used(), 4);

    const errdesc_t* e = cns_get_attrs(ns.get(), "/short", nullptr, nullptr, 0);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->number, 126);
    EXPECT_EQ(std::string(e->string), "_cns_read_proxy_header(" + root + "/short): short read 4095");
    EXPECT_EQ(number_of(cns_get_attrs(ns.get(), "/fifo", nullptr, nullptr, 0)), ESPIPE);
    EXPECT_EQ(number_of(cns_get_attrs(ns.get(), "/missing", nullptr, nullptr, 0)), ENOENT);
}

TEST_F(cor_namespace_test, ChecksTurnDownEveryKindOfGarbage) {
    create("/f", ours, 1, block);
    const std::string good = read_file(root + "/f");
    struct {
        std::size_t offset;
        std::size_t width;
        std::uint64_t value;
        const char* fault;
    } const cases[] = {
        {0, 4, 1, "wrong magic"},
        {8, 4, 1, "wrong magic"},
        {4, 4, 0, "unknown version"},
        {12, 4, 2, "unknown version"},
        {20, 4, 3953, "application header of 3953 bytes"},
        {84, 8, ~0ULL, "negative size -1"},
        {96, 8, 1000, "1000 blocks"},
    };
    EXPECT_EQ(cns_check_header(record_bytes_t(4096).text(0, good).as<cns_stub_header_t>(), "f"), nullptr);
    for (const auto& c : cases) {
        const record_bytes_t bytes = record_bytes_t(4096).text(0, good).number(c.offset, c.width, c.value);
        const errdesc_t* e = cns_check_header(bytes.as<cns_stub_header_t>(), "f");
        ASSERT_NE(e, nullptr) << c.fault;
        EXPECT_EQ(e->number, EINVAL);
        EXPECT_THAT(std::string(e->string), StartsWith("Node header refused, "));
        EXPECT_THAT(std::string(e->string), HasSubstr(c.fault));
    }
}

TEST_F(cor_namespace_test, UsersOfOneNodeMeetWholeHeadersAndARightCount) {
    create("/f", ours, 1, block);
    const auto write = [&](std::uint64_t owner) {
        for (std::uint64_t i = 0; i < 200; i++) {
            create("/f", owner, i, static_cast<std::int64_t>(owner) * block);
            create("/own" + std::to_string(owner), owner, i, block);
        }
    };
    std::thread first(write, ours);
    std::thread second(write, theirs);
    for (int i = 0; i < 200; i++) {
        const cns_attrs_t found = attrs("/f");
        EXPECT_TRUE(found.owner == 7 || found.owner == 8);
    }
    first.join();
    second.join();
    EXPECT_EQ(std::uint64_t{attrs("/f").generation}, 199U);
    EXPECT_EQ(used(), recount());
}

TEST(cor_namespace, RootMustBeThere) {
    const temp_dir_t dir;
    std::unique_ptr<cns_handle_t> ns;
    const errdesc_t* e = cns_create(dir / "missing", "", std::nullopt, CNS_OPT_USE_DIR, 0, 0, &ns);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(std::string(e->string), dir / "missing/.: No such file or directory");
    EXPECT_EQ(ns, nullptr);
}

TEST(cor_namespace, OwnTmpfsComesAndGoes) {
    const temp_dir_t dir;
    const tool_paths_t deployed = tool_paths();
    const fast_clock_t clock(20);
    tool_paths().mount = write_script(dir / "mount", "echo \"$*\" > " + (dir / "mounted") + "\n");
    tool_paths().umount = write_script(dir / "umount", "exit 9\n");
    std::unique_ptr<cns_handle_t> ns;
    ASSERT_EQ(cns_create(dir / "root", "", "size=1M", 0, 0, 0, &ns), nullptr);
    EXPECT_EQ(read_file(dir / "mounted"), "-t tmpfs -o size=1M tmpfs " + (dir / "root") + "\n");
    EXPECT_EQ(number_of(cns_destroy(&ns)), 9);
    EXPECT_EQ(ns, nullptr);
    EXPECT_FALSE(fs::exists(dir / "root"));
    tool_paths() = deployed;
}

TEST_F(cor_namespace_test, ExistingDirectoriesStay) {
    ASSERT_EQ(cns_destroy(&ns), nullptr);
    EXPECT_TRUE(fs::is_directory(root));
}

using cor_namespace_death_test = cor_namespace_test;

TEST_F(cor_namespace_death_test, Misuse) {
    walker_end();  // its thread, which counted the headers, must not be in the way of fork
    create("/f", ours, 1);
    write_file(root + "/g", std::string(4096, 'g'));
    EXPECT_DEATH((void)cns_get_attrs(ns.get(), "/g", nullptr, nullptr, 0), "ASSERT: header\\.magic");
    EXPECT_DEATH((void)cns_create_node(ns.get(), "/f", {.app_hdr_size = 1}), "ASSERT");
    EXPECT_DEATH((void)cns_create_node(ns.get(), "/f", {.app_hdr = "", .app_hdr_size = 3953}), "ASSERT");
    EXPECT_DEATH((void)cns_get_attrs(ns.get(), "/f", nullptr, nullptr, 3953), "ASSERT");
    EXPECT_DEATH((void)cns_unlink(ns.get(), std::string(4096, 'a')), "ASSERT");
    ns->fs_blocks_used = 0;
    EXPECT_DEATH((void)cns_unlink(ns.get(), "/f"), "ASSERT: fs_blocks_used >= 0");
    ns->magic = 0;
    EXPECT_DEATH((void)cns_get_fs_blocks_used(ns.get()), "ASSERT");
    ns->magic = cns_state_t::magic_value;
}

TEST(cor_namespace, StatusIsToldWhenItIsUnusual) {
    const auto told = [](mode_t mode, bool force) {
        struct stat st = {};
        st.st_mode = mode;
        st.st_size = 5;
        testing::internal::CaptureStdout();
        cns_check_statb("/a", "caller", st, force);
        std::fflush(stdout);
        const std::string line = testing::internal::GetCapturedStdout();
        return line.substr(line.find(": ") == std::string::npos ? 0 : line.find(": ") + 2);
    };
    EXPECT_EQ(told(S_IFREG | 0777, false), "");
    EXPECT_EQ(told(S_IFDIR | 0777, false), "");
    EXPECT_EQ(told(S_IFREG | 0644, false), "caller: /a: mode <100000 (REG), 0644> , size 5\n");
    EXPECT_EQ(told(S_IFDIR | 04777, false), "caller: /a: mode <40000 (DIR), 4777> , size 5\n");
    EXPECT_EQ(told(S_IFIFO | 0777, false), "caller: /a: mode <10000 (UNEXPECTED), 0777> , size 5\n");
    EXPECT_EQ(told(S_IFREG | 0777, true), "caller: /a: mode <100000 (REG), 0777> , size 5\n");
}

TEST_F(cor_namespace_test, UnusualAttributesOfAHeaderAreToldWhenDebugging) {
    create("/a", ours, 1, 5);
    const cns_node_t usual{.permissions = 0777};
    ASSERT_EQ(cns_create_node(ns.get(), "/b", usual), nullptr);
    get_reg_settings()->debug_level = 3;
    testing::internal::CaptureStdout();
    attrs("/a");
    attrs("/b");
    std::fflush(stdout);
    const std::string told = testing::internal::GetCapturedStdout();
    get_reg_settings()->debug_level = 0;
    EXPECT_THAT(told, EndsWith(": _cns_read_proxy_header: " + root + "/a: mode <100000 (REG), 0755> , size 5\n"));
    EXPECT_THAT(told, Not(HasSubstr("/b")));
}

TEST(cor_namespace, AttributesArePrinted) {
    EXPECT_EQ(printed([](std::FILE* out) { cns_attrs_dump(nullptr, out); }), "cns_attrs_dump: cns_attrs = NULL\n");
    cns_attrs_t attrs{};
    attrs.magic = cns_attrs_t::magic_value;
    attrs.owner = 7;
    attrs.statb.size = 12;
    attrs.statb.mode = 0100644;
    const std::string text = printed([&](std::FILE* out) { cns_attrs_dump(&attrs, out); });
    EXPECT_THAT(text, StartsWith("cns_attrs_dump: Begin dump 0x"));
    EXPECT_THAT(text, HasSubstr("\n    magic            = 0x20100119\n"));
    EXPECT_THAT(text, HasSubstr("\n    owner            = 7\n"));
    EXPECT_THAT(text, HasSubstr("\n    statb.st_mode    = 0x81a4\n"));
    EXPECT_THAT(text, HasSubstr("\n    statb.st_size    = 12\n"));
    EXPECT_THAT(text, EndsWith("\ncns_attrs_dump: End dump\n"));
}

}  // namespace
}  // namespace mirador
