// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>

#include <cerrno>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "lib/errdesc.h"
#include "lib/error_hash.h"
#include "lib/log.h"

namespace mirador {
namespace {

TEST(errdesc, TextFollowsFromTheNumber) {
    struct {
        errnum_t number;
        const char* text;
    } const cases[] = {
        {0, "unknown error"},        {131, "State not recoverable"},          {132, "unknown error"},
        {ERR_BASE, "unknown error"}, {ERR_MAX - 1, "registry key not found"}, {ERR_MAX, "unknown error"},
    };
    for (const auto& c : cases)
        EXPECT_STREQ(errdesc_set(c.number)->string, c.text) << c.number;
}

TEST(errdesc, OneDescriptorPerThreadCountsItsErrors) {
    const errdesc_t* first = errdesc_set(EIO);
    const auto sequence = first->sequence;
    const errdesc_t* second = errdesc_set(ENOENT);
    EXPECT_EQ(first, second);
    EXPECT_EQ(second->sequence, sequence + 1);
    EXPECT_GT(second->bt_buf.frame_count, 0);

    std::thread([first] {
        const errdesc_t* other = errdesc_set(EPERM);
        EXPECT_NE(other, first);
        EXPECT_EQ(other->sequence, 1U);
        EXPECT_EQ(_errdesc_copy_to_thr(first), other);
        EXPECT_EQ(other->number, ENOENT);
    }).join();
}

TEST(errdesc, KeeperBringsBackTheErrorOnItsWayUp) {
    const errdesc_t* e = errdesc_set_str(EIO, "100%s");
    const errdesc_t before = *e;
    {
        const errdesc_keeper_t keep;
        errdesc_set_str(ENOENT, "clean-up");
    }
    EXPECT_EQ(e->number, EIO);
    EXPECT_STREQ(e->string, "100%s: Input/output error");
    EXPECT_EQ(e->linenumber, before.linenumber);
    EXPECT_EQ(e->sequence, before.sequence + 1);
}

TEST(error_hash, GivesBackTheErrorAsItWasRaised) {
    error_hash_save("/vm/a", errdesc_set_str(EIO, "first"));
    const errdesc_t raised = *errdesc_set_str(ENOSPC, "second");
    error_hash_save("/vm/a", &raised);
    std::thread([&raised] {
        const errdesc_t* e = error_hash_get("/vm/a");
        ASSERT_NE(e, nullptr);
        EXPECT_STREQ(e->string, "second: No space left on device");
        EXPECT_EQ(e->linenumber, raised.linenumber);
        EXPECT_EQ(e->tid, raised.tid);
        EXPECT_NE(e->tid, pthread_self());
    }).join();
    EXPECT_EQ(error_hash_get("/vm"), nullptr);
    error_hash_save("/vm/a", nullptr);
    EXPECT_EQ(error_hash_get("/vm/a"), nullptr);
    error_hash_save("/vm/a", errdesc_set(EPERM));
    error_hash_clear("/vm/a");
    error_hash_clear("/vm/a");
    EXPECT_EQ(error_hash_get("/vm/a"), nullptr);
}

// "/0" is saved again after "/1", so "/1" is the first to go, and "/0" the next but one.
TEST(error_hash, ForgetsTheLongestSavedBeyondItsBound) {
    const errdesc_t* e = errdesc_set(EIO);
    error_hash_save("/0", e);
    error_hash_save("/1", e);
    error_hash_save("/2", e);
    error_hash_save("/0", e);
    for (std::size_t i = 3; i < error_hash_max_paths; i++)
        error_hash_save("/" + std::to_string(i), e);
    EXPECT_NE(error_hash_get("/1"), nullptr);
    error_hash_save("/one more", e);
    EXPECT_EQ(error_hash_get("/1"), nullptr);
    EXPECT_NE(error_hash_get("/2"), nullptr);
    error_hash_save("/2", e);  // in place of its own: nobody has to go
    EXPECT_NE(error_hash_get("/0"), nullptr);
    error_hash_save("/two more", e);
    EXPECT_EQ(error_hash_get("/0"), nullptr);
    EXPECT_NE(error_hash_get("/3"), nullptr);
}

TEST(log, LinesOfManyThreadsStayWhole) {
    testing::internal::CaptureStdout();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([] {
            for (int i = 0; i < 200; i++) {
                ts_printf("line of %s\n", "two parts");
                _errdesc_print(errdesc_set(EIO), ERRDESC_ERROR);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    std::istringstream out(testing::internal::GetCapturedStdout());
    const std::regex whole("[-0-9]{10} [:0-9]{8}\\.[0-9]{6}: (line of two parts|ERROR \\[thread.* error:5\\] [^:]*)");
    int lines = 0;
    for (std::string line; std::getline(out, line); lines++)
        EXPECT_TRUE(std::regex_match(line, whole)) << line;
    EXPECT_EQ(lines, 4 * 200 * 2);
}

}  // namespace
}  // namespace mirador
