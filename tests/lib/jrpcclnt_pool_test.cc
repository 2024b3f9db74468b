// SPDX-License-Identifier: Apache-2.0
#include "lib/jrpcclnt_pool.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <string>
#include <thread>
#include <vector>

#include "lib/clock.h"
#include "lib/spawn.h"
#include "tests/lib/children.h"
#include "tests/lib/error_number.h"

namespace mirador {
namespace {

using argv_t = std::vector<std::string>;

// Ends when its input does; good for all that makes no call.
argv_t dummy_of(const std::string& name) {
    return {"/bin/sh", "-c", "exec cat", name};
}
const argv_t dummy = dummy_of("one");

// Whether a child that was told to end, or killed, does so soon.
bool ends(pid_t pid) {
    for (int tries = 0; spawn_is_alive(pid) && tries < 5000; tries++)
        poll(nullptr, 0, 1);
    return !spawn_is_alive(pid);
}

// Each test ends with neither process nor descriptor more than it began with.
class jrpcclnt_pool_test : public testing::Test {
  protected:
    jrpcclnt_pool_test() { survive_broken_pipes(); }
    ~jrpcclnt_pool_test() override {
        const fast_clock_t clock{100};  // the test's own is gone
        EXPECT_FALSE(leaves_children());
        EXPECT_EQ(open_descriptors(), descriptors);
    }

    static jrpc_handle_t* get(jrpcclnt_pool_t& pool, const argv_t& argv = dummy) {
        jrpc_handle_t* handle = nullptr;
        EXPECT_EQ(pool.get(argv, &handle), nullptr);
        return handle;
    }

    std::ptrdiff_t descriptors = open_descriptors();
};

// With the clock driven by hand.
class jrpcclnt_pool_time_test : public jrpcclnt_pool_test {
  protected:
    manual_clock_t clock{1000000};
    std::optional<jrpcclnt_pool_t> pool{std::in_place, false};
    ~jrpcclnt_pool_time_test() override { pool.reset(); }
};

TEST_F(jrpcclnt_pool_time_test, IdleAgentsServeTheSameCommandLine) {
    jrpc_handle_t* first = get(*pool);
    const jrpc_handle_t* const agent = first;
    EXPECT_EQ(pool->release(&first), nullptr);
    EXPECT_EQ(first, nullptr);
    jrpc_handle_t* other = get(*pool, dummy_of("other"));
    EXPECT_NE(other, agent);
    jrpc_handle_t* same = get(*pool);
    EXPECT_EQ(same, agent);
    EXPECT_EQ(pool->size(), 2U);
    EXPECT_EQ(pool->in_use(), 2U);
    pool->release(&same);
    pool->release(&other);
    EXPECT_EQ(pool->in_use(), 0U);

    jrpc_handle_t* none = nullptr;
    errdesc_t* const error = pool->get({"/nowhere/agent"}, &none);
    ASSERT_EQ(number_of(error), ENOENT);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(pool->size(), 2U);
}

TEST_F(jrpcclnt_pool_time_test, AnIdleAgentBehindTwoBusyOnesIsTakenAfterSixSeconds) {
    jrpc_handle_t* first = get(*pool);
    jrpc_handle_t* second = get(*pool);
    jrpc_handle_t* third = get(*pool);
    const jrpc_handle_t* const last = third;
    EXPECT_EQ(pool->size(), 3U);
    EXPECT_EQ(clock.slept(), 0);  // none was idle
    pool->release(&third);
    third = get(*pool);
    EXPECT_EQ(third, last);
    EXPECT_EQ(clock.slept(), 1 + 2 + 3);

    pool->release(&second);
    pool->release(&third);
    second = get(*pool);
    EXPECT_EQ(clock.slept(), 6);  // one busy agent is no reason to wait
    pool->release(&second);
    pool->release(&first);
}

TEST_F(jrpcclnt_pool_time_test, OneAgentTooManyEndsTheLeastRecentlyUsed) {
    std::vector<jrpc_handle_t*> handles;
    std::vector<pid_t> pids;
    for (int i = 0; i < 17; i++) {
        handles.push_back(get(*pool, dummy_of(std::to_string(i))));
        pids.push_back(handles.back()->pid);
    }
    EXPECT_EQ(pool->size(), 17U);  // those in use stay
    for (const std::size_t i : {5U, 3U, 16U, 0U, 1U, 2U, 4U, 6U, 7U, 8U, 9U, 10U, 11U, 12U, 13U, 14U, 15U}) {
        clock.advance(1);
        pool->release(&handles[i]);
        EXPECT_EQ(pool->size(), 16U);
    }
    EXPECT_TRUE(ends(pids[5]));
    handles[5] = get(*pool, dummy_of("5"));  // a new one
    EXPECT_EQ(pool->size(), 16U);
    EXPECT_TRUE(ends(pids[3]));
    for (const std::size_t i : {0U, 1U, 2U, 4U, 6U, 7U, 8U, 9U, 10U, 11U, 12U, 13U, 14U, 15U, 16U})
        EXPECT_TRUE(spawn_is_alive(pids[i])) << i;

    clock.advance(121);
    pool->evict();
    EXPECT_EQ(pool->size(), 1U);
    EXPECT_EQ(pool->in_use(), 1U);
    pool->release(&handles[5]);
    clock.advance(120);
    pool->evict();
    EXPECT_EQ(pool->size(), 1U);  // 120 seconds are not more than 120
}

TEST_F(jrpcclnt_pool_time_test, DeadAndBrokenAgentsServeNobody) {
    jrpc_handle_t* dead = get(*pool);
    jrpc_handle_t* broken = get(*pool);
    const pid_t dead_pid = dead->pid;
    const pid_t broken_pid = broken->pid;
    pool->release(&dead);
    ASSERT_EQ(kill(dead_pid, SIGKILL), 0);
    siginfo_t info{};
    ASSERT_EQ(waitid(P_PID, static_cast<id_t>(dead_pid), &info, WEXITED | WNOWAIT), 0);
    // What cat replies is the request itself: no object.
    errdesc_t* const error = jrpc_call(*broken, {"echo"});
    ASSERT_NE(error, nullptr);
    pool->release(&broken);
    EXPECT_EQ(error->number, ERR_JSON_PARSE_ERROR);  // what ended agents had to say did not replace it
    EXPECT_EQ(pool->size(), 0U);

    jrpc_handle_t* fresh = get(*pool);
    EXPECT_NE(fresh->pid, dead_pid);
    EXPECT_NE(fresh->pid, broken_pid);
    pool->release(&fresh);
}

// With a clock that runs fast.
class jrpcclnt_pool_load_test : public jrpcclnt_pool_test {
  protected:
    fast_clock_t clock{100};
};

TEST_F(jrpcclnt_pool_load_test, TheCleanupThreadEndsWhatNobodyUses) {
    jrpcclnt_pool_t pool(true);
    jrpc_handle_t* handle = get(pool);
    pool.release(&handle);
    const std::time_t begin = clock_now();
    while (pool.size() > 0 && clock_now() - begin < 1000)
        clock_sleep(10);
    EXPECT_EQ(pool.size(), 0U);
    EXPECT_GE(clock_now() - begin, 120);
}

struct tally_t {
    std::atomic<int> served = 0;
    std::atomic<int> failed = 0;
    std::atomic<int> wrong = 0;  // a result where none can be, or another request's
};

// One worker's calls. Some ask the agent to misbehave, after some it dies idle.
void work(jrpcclnt_pool_t& pool, int worker, tally_t* tally) {
    for (int i = 0; i < 40; i++) {
        jrpc_handle_t* handle = nullptr;
        ASSERT_EQ(pool.get({UNRULY_AGENT, "--hypervisor", std::to_string(i % 3)}, &handle), nullptr);
        const std::string id = std::to_string(worker) + "." + std::to_string(i);
        const std::string own = "[\"" + id + "\"]";
        const struct {
            jrpc_args_t args;
            std::string result;
        } kinds[] = {
            {{"say_and_die", "{\"resp"}, "none"},
            {{"say", "garbage\n"}, "none"},
            {{"say", "{\"response_data\": " + own + "}\n{\"response_data\": [\"stray\"]}\n"}, own},
            {{"echo", id}, own},
        };
        const int kind = std::min((worker + i) % 20, 3);
        json_ptr result;
        const bool failed = jrpc_call_raw(*handle, kinds[kind].args, &result) != nullptr;
        (failed ? tally->failed : tally->served)++;
        tally->wrong +=
            !failed && kinds[kind].result != json_object_to_json_string_ext(result.get(), JSON_C_TO_STRING_PLAIN);
        if ((worker + i) % 20 == 10)
            kill(handle->pid, SIGKILL);
        pool.release(&handle);
    }
}

TEST_F(jrpcclnt_pool_load_test, ManyThreadsShareFewAgentsThatDie) {
    constexpr int workers = 12;
    constexpr int calls = workers * 40;
    jrpcclnt_pool_t pool(true);
    tally_t tally;
    {
        std::vector<std::jthread> threads;
        for (int worker = 0; worker < workers; worker++)
            threads.emplace_back([&pool, worker, &tally] { work(pool, worker, &tally); });
    }
    EXPECT_EQ(tally.wrong, 0);
    EXPECT_EQ(tally.served + tally.failed, calls);
    // A call in ten is made to fail; behind a stray reply, or a death not seen yet, another one.
    EXPECT_GE(tally.served, calls * 3 / 4);
    EXPECT_EQ(pool.in_use(), 0U);
    EXPECT_LE(pool.size(), 16U);
}

TEST_F(jrpcclnt_pool_load_test, ShutdownReturnsWithCallsInFlight) {
    jrpcclnt_pool_t pool(true);
    jrpc_handle_t* idle = get(pool, {UNRULY_AGENT, "idle"});
    jrpc_handle_t* silent = get(pool, {UNRULY_AGENT, "silent"});
    jrpc_handle_t* stubborn = get(pool, {UNRULY_AGENT, "stubborn"});
    jrpc_handle_t* kept = get(pool, {UNRULY_AGENT, "kept"});
    ASSERT_EQ(jrpc_call(*stubborn, {"ignore_end"}), nullptr);
    pool.release(&idle);
    pool.release(&stubborn);
    std::jthread caller([&pool, &silent] {
        errdesc_t* const error = jrpc_call(*silent, {"silence"});
        ASSERT_EQ(number_of(error), EPIPE);
        pool.release(&silent);
    });
    const std::time_t begin = clock_now();
    pool.begin_shutdown();
    EXPECT_EQ(jrpc_call(*kept, {"echo"}), nullptr);  // agents serve as before: snapshots are still to be removed
    std::jthread second([&pool] { pool.destroy(); });
    pool.destroy();
    caller.join();
    EXPECT_LT(clock_now() - begin, 600);
    EXPECT_EQ(pool.size(), 1U);  // what nobody gave back

    jrpc_handle_t* none = nullptr;
    errdesc_t* const error = pool.get({UNRULY_AGENT, "idle"}, &none);
    ASSERT_EQ(number_of(error), ERR_CANCELLED);
    EXPECT_NE(jrpc_call(*kept, {"echo"}), nullptr);
    pool.release(&kept);
    EXPECT_EQ(pool.size(), 0U);
}

}  // namespace
}  // namespace mirador
