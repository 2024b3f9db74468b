// SPDX-License-Identifier: Apache-2.0
#include "lib/instance_lock.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <thread>

#include "lib/spawn.h"
#include "lib/tool_paths.h"
#include "tests/lib/error_number.h"
#include "tests/lib/in_child.h"
#include "tests/lib/temp_dir.h"

namespace mirador {
namespace {

errnum_t outcome() {
    return in_child([] { return number_of(instance_lock_take()); });
}

// Forks a process that runs `body` and then sleeps, or ends its first thread; returns its pid once `body` is through.
template <typename body_t>
pid_t run_and_stay(body_t body, bool ends_thread = false) {
    std::array<int, 2> ready{};
    EXPECT_EQ(pipe(ready.data()), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        body();
        (void)!write(ready[1], "x", 1);
        if (ends_thread)
            syscall(SYS_exit, 0);  // the thread alone
        for (;;)
            pause();
    }
    char byte = 0;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    close(ready[1]);
    return pid;
}

void end(pid_t pid) {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

class instance_lock_test : public testing::Test {
  protected:
    instance_lock_test() { tool_paths().lock_file = dir / "lock"; }
    ~instance_lock_test() override { tool_paths().lock_file = tool_paths_t().lock_file; }
    const temp_dir_t dir;
};

TEST_F(instance_lock_test, OneHolderUntilItIsKilled) {
    const pid_t holder = run_and_stay([] { (void)instance_lock_take(); });
    EXPECT_EQ(outcome(), EBUSY);
    EXPECT_EQ(in_child([] { return std::string(instance_lock_take()->string) == "already running" ? 0 : 1; }), 0);
    end(holder);
    EXPECT_EQ(outcome(), 0);
    EXPECT_EQ(outcome(), 0);  // a lock file that was left behind is no lock
}

TEST_F(instance_lock_test, StaysWithTheProcessInTheBackgroundAndNotWithItsTools) {
    std::array<int, 2> pids{};
    ASSERT_EQ(pipe(pids.data()), 0);
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);  // the orphans come here
    // Takes the lock, starts a tool, and goes on in a child of its own, as a daemon does.
    EXPECT_EQ(in_child([&pids] {
                  std::array<pid_t, 2> started{};
                  if (instance_lock_take() != nullptr ||
                      spawn({"/bin/sleep", "1000"}, 0, nullptr, nullptr, &started[0], 0) != nullptr)
                      return 1;
                  started[1] = run_and_stay([] {});
                  return write(pids[1], started.data(), sizeof started) == sizeof started ? 0 : 2;
              }),
              0);
    std::array<pid_t, 2> started{};
    ASSERT_EQ(read(pids[0], started.data(), sizeof started), static_cast<ssize_t>(sizeof started));
    EXPECT_EQ(outcome(), EBUSY);
    end(started[1]);
    EXPECT_EQ(outcome(), 0);
    end(started[0]);
    close(pids[0]);
    close(pids[1]);
}

TEST_F(instance_lock_test, TellsHolderThatCannotEndFromOneThatLives) {
    EXPECT_FALSE(instance_lock_holder_is_dying());  // no file
    const pid_t alive = run_and_stay([] { (void)instance_lock_take(); });
    EXPECT_FALSE(instance_lock_holder_is_dying());
    end(alive);
    EXPECT_FALSE(instance_lock_holder_is_dying());

    // Its first thread has ended, another holds on to all that the process has.
    const pid_t dying = run_and_stay(
        [] {
            (void)instance_lock_take();
            std::thread(pause).detach();
        },
        true);
    while (!instance_lock_holder_is_dying())
        std::this_thread::yield();
    EXPECT_EQ(outcome(), EBUSY);
    end(dying);
    EXPECT_EQ(outcome(), 0);
}

}  // namespace
}  // namespace mirador
