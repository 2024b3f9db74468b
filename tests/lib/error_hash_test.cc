// SPDX-License-Identifier: Apache-2.0
#include "lib/error_hash.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>
#include <vector>

namespace mirador {
namespace {

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

TEST(error_hash, ThreadsShareIt) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([t] {
            const std::string own = "/thread " + std::to_string(t);
            for (int i = 0; i < 200; i++) {
                error_hash_save("/shared", errdesc_set(EIO));
                error_hash_save(own, errdesc_set(ENOENT));
                EXPECT_EQ(error_hash_get(own)->number, ENOENT);
                error_hash_clear("/shared");
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(error_hash_get("/shared"), nullptr);
}

}  // namespace
}  // namespace mirador
