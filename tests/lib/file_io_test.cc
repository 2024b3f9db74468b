// SPDX-License-Identifier: Apache-2.0
#include "lib/file_io.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cerrno>

#include "tests/lib/in_child.h"
#include "tests/lib/temp_dir.h"

namespace mirador {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

TEST(file_io, ReadsAndWritesAtOffsets) {
    temp_dir_t dir;
    const unique_fd fd(open((dir / "data").c_str(), O_RDWR | O_CREAT, 0600));
    std::size_t done = 99;
    ASSERT_EQ(cor_pwrite(fd.get(), "0123456789", 10, 100, &done), nullptr);
    EXPECT_EQ(done, 10U);

    struct {
        std::size_t count;
        off_t offset;
        std::string bytes;
    } const cases[] = {
        {4, 103, "3456"}, {10, 105, "56789"}, {1, 110, ""}, {5, 4000, ""}, {0, 100, ""}, {3, 98, {'\0', '\0', '0'}},
    };
    for (const auto& c : cases) {
        std::array<char, 16> buf{};
        ASSERT_EQ(cor_pread(fd.get(), buf.data(), c.count, c.offset, &done), nullptr);
        EXPECT_EQ(std::string(buf.data(), done), c.bytes) << c.count << " at " << c.offset;
    }
}

TEST(file_io, FailedTransferNamesItselfAndLeavesDoneAlone) {
    char byte = 0;
    std::size_t done = 99;
    const errdesc_t* e = cor_pread(-1, &byte, 1, 512, &done);
    EXPECT_EQ(e->number, EBADF);
    EXPECT_THAT(e->string, MatchesRegex("cor_pread\\(-1, 0x[0-9a-f]+, 1, 512\\) failed"));
    const unique_fd read_only(open("/dev/null", O_RDONLY));
    e = cor_pwrite(read_only.get(), &byte, 1, 0, &done);
    EXPECT_EQ(e->number, EBADF);
    EXPECT_THAT(e->string, HasSubstr("cor_pwrite("));
    EXPECT_EQ(done, 99U);
}

TEST(file_io, FailedCloseIsLoggedAndKeepsTheErrorOnItsWayUp) {
    int fd = fcntl(0, F_DUPFD, 500);
    close(fd);
    const errdesc_t* e = errdesc_set_str(EIO, "on its way");
    testing::internal::CaptureStdout();
    cor_safe_close(&fd);
    EXPECT_THAT(testing::internal::GetCapturedStdout(), MatchesRegex(".*INFO.*error:9\\] failed closing fd 50.\n"));
    EXPECT_EQ(fd, -1);
    EXPECT_STREQ(e->string, "on its way: Input/output error");
}

TEST(file_io, UniqueFdClosesOnceAndHandsOver) {
    const auto is_open = [](int fd) { return fcntl(fd, F_GETFD) != -1; };
    unique_fd first(open("/dev/null", O_RDONLY));
    const int number = first.get();
    unique_fd second(std::move(first));
    EXPECT_TRUE(is_open(number));
    second = unique_fd(open("/dev/null", O_RDONLY));
    EXPECT_FALSE(is_open(number));
    const int released = second.release();
    EXPECT_FALSE(second);
    EXPECT_TRUE(is_open(released));
    close(released);
}

// What cor_safe_fclose logs of a pipe that still holds `unread`.
std::string closing_log(const std::string& unread) {
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe(ends.data()), 0);
    EXPECT_EQ(write(ends[1], unread.data(), unread.size()), static_cast<ssize_t>(unread.size()));
    close(ends[1]);
    std::FILE* stream = fdopen(ends[0], "r");
    testing::internal::CaptureStdout();
    cor_safe_fclose(&stream);
    EXPECT_EQ(stream, nullptr);
    EXPECT_EQ(fcntl(ends[0], F_GETFD), -1);
    return testing::internal::GetCapturedStdout();
}

TEST(file_io, ClosingAStreamTellsWhatWasNeverRead) {
    EXPECT_THAT(closing_log(""), IsEmpty());
    EXPECT_THAT(closing_log("\n"), IsEmpty());
    EXPECT_THAT(closing_log("\n\n"), HasSubstr("discarded 2 bytes"));
    EXPECT_THAT(closing_log("x"), HasSubstr("discarded 1 bytes"));
    EXPECT_THAT(closing_log(std::string(1024, 'x') + "\n"), HasSubstr("error:52] cor_safe_fdrain("));
}

TEST(file_io, ClosesOrMarksEverythingAbove2) {
    EXPECT_EQ(in_child([] {
                  const int high = fcntl(0, F_DUPFD, 800);
                  cor_close_on_exec();
                  if (fcntl(high, F_GETFD) != FD_CLOEXEC || fcntl(0, F_GETFD) != 0)
                      return 1;
                  cor_close_non_std_files();
                  return fcntl(high, F_GETFD) == -1 && fcntl(2, F_GETFD) == 0 ? 0 : 2;
              }),
              0);
}

}  // namespace
}  // namespace mirador
