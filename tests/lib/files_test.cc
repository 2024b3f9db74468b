// SPDX-License-Identifier: Apache-2.0
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <thread>
#include <vector>

#include "lib/file_io.h"
#include "lib/file_tree.h"
#include "tests/lib/temp_dir.h"

namespace mirador {
namespace {

using testing::HasSubstr;

TEST(file_io, FailedTransferNamesItselfAndLeavesDoneAlone) {
    char byte = 0;
    std::size_t done = 99;
    const errdesc_t* e = cor_pread(-1, &byte, 1, 512, &done);
    EXPECT_EQ(e->number, EBADF);
    EXPECT_THAT(e->string, testing::MatchesRegex("cor_pread\\(-1, 0x[0-9a-f]+, 1, 512\\) failed"));
    const unique_fd read_only(open("/dev/null", O_RDONLY));
    e = cor_pwrite(read_only.get(), &byte, 1, 0, &done);
    EXPECT_EQ(e->number, EBADF);
    EXPECT_THAT(e->string, HasSubstr("cor_pwrite("));
    EXPECT_EQ(done, 99U);
}

bool exists(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0;
}

mode_t mode_of(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? st.st_mode & 07777 : 0;
}

TEST(file_tree, MkdirpMakesEveryLevelWithTheModeGiven) {
    temp_dir_t dir;
    const mode_t previous = umask(077);
    for (const char* path : {"a/b/c/", "a/b/c", "a//d", "a"})
        EXPECT_EQ(mkdirp(dir / path, 0775), 0) << path;
    EXPECT_EQ(umask(previous), 077U);
    for (const char* path : {"a", "a/b", "a/b/c", "a/d"})
        EXPECT_EQ(mode_of(dir / path), 0775U) << path;
    EXPECT_EQ(mkdirp("/", 0755), 0);
}

TEST(file_tree, MkdirpLeavesTheMaskToOtherThreads) {
    temp_dir_t dir;
    const mode_t previous = umask(027);
    std::atomic<bool> done = false;
    std::thread other([&] {
        while (!done) {
            const unique_fd fd(open((dir / "file").c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
            EXPECT_EQ(mode_of(dir / "file"), 0640U);
            unlink((dir / "file").c_str());
        }
    });
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([&dir, t] {
            for (int i = 0; i < 5000; i++)
                EXPECT_EQ(mkdirp(dir / std::to_string(i % 20) + "/" + std::to_string(t), 0777), 0);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    done = true;
    other.join();
    EXPECT_EQ(umask(previous), 027U);
    EXPECT_EQ(mode_of(dir / "19/3"), 0777U);
}

TEST(file_tree, RmdirrRemovesATreeAndNothingBehindLinks) {
    temp_dir_t dir;
    write_file(dir / "outside", "kept");
    ASSERT_EQ(mkdirp(dir / "other", 0755), 0);
    write_file(dir / "other/file", "kept");
    ASSERT_EQ(mkdirp(dir / "tree/a/b", 0755), 0);
    write_file(dir / "tree/a/.hidden", "");
    ASSERT_EQ(symlink((dir / "other").c_str(), (dir / "tree/a/b/dir link").c_str()), 0);
    ASSERT_EQ(symlink((dir / "outside").c_str(), (dir / "tree/file link").c_str()), 0);
    ASSERT_EQ(mkfifo((dir / "tree/fifo").c_str(), 0600), 0);
    EXPECT_EQ(rmdirr(dir / "tree"), nullptr);
    EXPECT_FALSE(exists(dir / "tree"));
    EXPECT_TRUE(exists(dir / "outside"));
    EXPECT_TRUE(exists(dir / "other/file"));
    EXPECT_EQ(rmdirr(dir / "tree"), nullptr);
}

TEST(file_tree, RmdirrReportsAndLogsTheFirstFailure) {
    temp_dir_t dir;
    const std::string file = write_file(dir / "file", "");
    testing::internal::CaptureStdout();
    const errdesc_t* e = rmdirr(file);
    EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("ERROR"));
    EXPECT_EQ(e->string, file + ": Not a directory");
    // Nobody, root included, unlinks from here.
    e = rmdirr("/proc/self/fdinfo");
    ASSERT_NE(e, nullptr);
    EXPECT_THAT(e->string, testing::StartsWith("rmdirr(/proc/self/fdinfo): unlink(/proc/self/fdinfo/0) failed: "));
    EXPECT_TRUE(e->number == EPERM || e->number == EACCES);
}

}  // namespace
}  // namespace mirador
