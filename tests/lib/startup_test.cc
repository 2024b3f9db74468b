// SPDX-License-Identifier: Apache-2.0
#include "lib/startup.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <thread>

#include "lib/log.h"
#include "tests/lib/in_child.h"
#include "tests/lib/temp_dir.h"

namespace mirador {
namespace {

std::size_t lines_in(const std::string& path) {
    const std::string text = read_file(path);
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

// The handler interrupts threads in the middle of printing: no line is lost and none deadlocks.
TEST(startup, HangupsDuringPrintingLoseNothing) {
    constexpr std::size_t count = 2000;
    temp_dir_t dir;
    EXPECT_EQ(in_child([&dir] {
                  const cordesc_t desc{"daemon", dir.path()};
                  (void)cor_startup(&desc);
                  std::atomic<bool> done = false;
                  std::thread rotator([&dir, &done, printer = pthread_self()] {
                      block_signals();
                      for (int i = 0; !done; i++) {
                          rename((dir / "daemon").c_str(), (dir / std::to_string(i)).c_str());
                          pthread_kill(printer, SIGHUP);
                          while (!done && access((dir / "daemon").c_str(), F_OK) != 0)
                              std::this_thread::yield();
                      }
                  });
                  for (std::size_t i = 0; i < count; i++)
                      ts_printf("line\n");
                  done = true;
                  rotator.join();
                  return 0;
              }),
              0);
    std::size_t lines = 0;
    for (const auto& file : std::filesystem::directory_iterator(dir.path()))
        lines += lines_in(file.path());
    EXPECT_EQ(lines, count);
}

// Whoever waits looks again whether it is told to end.
TEST(startup, HangupInterruptsAWait) {
    temp_dir_t dir;
    EXPECT_EQ(in_child([&dir] {
                  const cordesc_t desc{"daemon", dir.path()};
                  (void)cor_startup(&desc);
                  sem_t sem;
                  sem_init(&sem, 0, 0);
                  std::atomic<bool> done = false;
                  std::thread sender([&sem, &done, waiter = pthread_self()] {
                      block_signals();
                      for (int i = 0; i < 100 && !done; i++) {
                          pthread_kill(waiter, SIGHUP);
                          std::this_thread::sleep_for(std::chrono::milliseconds(10));
                      }
                      sem_post(&sem);
                  });
                  const int number = sem_wait(&sem) == 0 ? 0 : errno;
                  done = true;
                  sender.join();
                  return number;
              }),
              EINTR);
}

TEST(startup, LogsWithOutputClosed) {
    temp_dir_t dir;
    EXPECT_EQ(in_child([&dir] {
                  for (const int fd : {1, 2})
                      close(fd);
                  const cordesc_t desc{"daemon", dir.path()};
                  (void)cor_startup(&desc);
                  // Neither may vanish in the programs that are run.
                  if (fcntl(1, F_GETFD) != 0 || fcntl(2, F_GETFD) != 0)
                      return 1;
                  ts_printf("line\n");
                  return 0;
              }),
              0);
    EXPECT_EQ(lines_in(dir / "daemon"), 1U);
}

TEST(startup, BrokenPipesAndLimits) {
    EXPECT_EQ(in_child([] {
                  const cordesc_t desc{"daemon", std::nullopt};
                  const rlimit few{64, 128};
                  if (setrlimit(RLIMIT_NOFILE, &few) != 0 || cor_startup(&desc) != nullptr)
                      return 1;
                  rlimit limit{};
                  if (getrlimit(RLIMIT_CORE, &limit) != 0 || limit.rlim_cur != limit.rlim_max)
                      return 2;
                  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur != 128)
                      return 6;
                  std::array<int, 2> ends{};
                  if (pipe(ends.data()) != 0 || close(ends[0]) != 0)
                      return 3;
                  if (write(ends[1], "x", 1) != -1 || errno != EPIPE)
                      return 4;
                  struct sigaction hangup {};
                  sigaction(SIGHUP, nullptr, &hangup);
                  return hangup.sa_handler == SIG_DFL ? 0 : 5;  // without a log file nobody needs it
              }),
              0);
}

}  // namespace
}  // namespace mirador
