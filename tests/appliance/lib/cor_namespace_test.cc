// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/cor_namespace.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <set>
#include <thread>

#include "tests/lib/error_number.h"
#include "tests/lib/temp_dir.h"
#include "tests/support/record_bytes.h"

namespace mirador {
namespace {

namespace fs = std::filesystem;

constexpr std::uint64_t ours = 7;
constexpr std::uint64_t theirs = 8;

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
        EXPECT_THAT(std::string(e->string), testing::StartsWith("Namespace path refused, "));
        EXPECT_THAT(std::string(e->string), testing::EndsWith(std::string(": ") + path));
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

}  // namespace
}  // namespace mirador
