// SPDX-License-Identifier: Apache-2.0
#include "lib/spawn.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <thread>

#include "lib/clock.h"
#include "lib/file_io.h"
#include "tests/lib/children.h"
#include "tests/lib/error_number.h"
#include "tests/lib/in_child.h"
#include "tests/lib/temp_dir.h"

namespace mirador {
namespace {

std::string read_to_end(int fd) {
    std::string text;
    std::array<char, 4096> chunk{};
    for (;;) {
        const ssize_t got = read(fd, chunk.data(), chunk.size());
        if (got <= 0)
            return text;
        text.append(chunk.data(), static_cast<std::size_t>(got));
    }
}

// What a shell command prints, with the environment given or the test's own.
std::string output_of(const std::string& command, const std::vector<std::string>* envp = nullptr) {
    int out = -1;
    pid_t pid = -1;
    EXPECT_EQ(spawn_env({"/bin/sh", "-c", command}, SPAWN_PIPE_FROM_CHILD, &out, nullptr, &pid, 0, envp), nullptr);
    const unique_fd own(out);
    std::string text = read_to_end(out);
    EXPECT_EQ(spawn_wait(pid, 0, command, 1000), nullptr);
    return text;
}

bool echoes(int out_fd, int in_fd, const std::string& text) {
    unique_fd out(out_fd);
    unique_fd in(in_fd);
    if (write(in.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        return false;
    in.reset();
    return read_to_end(out.get()) == text;
}

class spawn_test : public testing::Test {
  protected:
    fast_clock_t clock{50};
};

TEST_F(spawn_test, OutcomeFollowsFromHowTheChildEnds) {
    temp_dir_t dir;
    const std::string not_executable = write_file(dir / "data", "x");
    struct {
        std::vector<std::string> argv;
        errnum_t number;
        std::string text;
    } const cases[] = {
        {{"/bin/true"}, 0, ""},
        {{"/bin/sh", "-c", "exit 3"}, 3, "/bin/sh -c exit 3 "},
        {{"/bin/sh", "-c", "kill -9 $$"}, EINVAL, "/bin/sh -c kill -9 $$ : Invalid argument"},
        {{"/nowhere/tool", "100%s"}, ENOENT, "/nowhere/tool 100%s "},
        {{not_executable}, EACCES, not_executable + " "},
        {{"true"}, ENOENT, "true "},
    };
    for (const auto& c : cases) {
        const errdesc_t* e = spawn_tool(c.argv, 1000);
        EXPECT_EQ(number_of(e), c.number) << c.argv[0];
        EXPECT_EQ(e == nullptr ? "" : std::string(e->string), c.text);
    }
}

TEST_F(spawn_test, ArgumentsAndEnvironmentArriveWhole) {
    setenv("MIRADOR_INHERITED", "kept", 1);
    const std::vector<std::string> env = {"A=1 2", "B="};
    EXPECT_EQ(output_of("printf '<%s>' 'a  b' '' \"$MIRADOR_INHERITED\""), "<a  b><><kept>");
    EXPECT_EQ(output_of("printf '<%s>' \"$A\" \"${B-unset}\" \"${MIRADOR_INHERITED-gone}\"", &env), "<1 2><><gone>");
}

TEST_F(spawn_test, FailedWaitLeavesNoPipeEnd) {
    const auto before = open_descriptors();
    int out = 7;
    const errdesc_t* e =
        spawn({"/bin/sh", "-c", "exit 4"}, SPAWN_PIPE_FROM_CHILD | SPAWN_WAIT, &out, nullptr, nullptr, 1000);
    ASSERT_EQ(number_of(e), 4);
    EXPECT_EQ(out, -1);
    EXPECT_EQ(open_descriptors(), before);
}

// A daemon may run with its standard streams closed; pipe ends then come out as 0, 1 and 2.
TEST_F(spawn_test, PipeEndsAmongTheStandardDescriptors) {
    EXPECT_EQ(in_child([] {
                  for (const int fd : {0, 1, 2})
                      close(fd);
                  int out = -1;
                  int in = -1;
                  pid_t pid = -1;
                  if (spawn({"/bin/cat"}, SPAWN_PIPE_FROM_CHILD | SPAWN_PIPE_TO_CHILD, &out, &in, &pid, 0) != nullptr)
                      return 1;
                  // What the program prints must not end in a pipe.
                  return out > 2 && in > 2 && echoes(out, in, "x") ? 0 : 2;
              }),
              0);
    // The child's output handed over as descriptor 0 and its input as 1: each in the other's place.
    EXPECT_EQ(in_child([] {
                  std::array<int, 2> from{};
                  std::array<int, 2> to{};
                  if (pipe2(from.data(), O_CLOEXEC) != 0 || pipe2(to.data(), O_CLOEXEC) != 0)
                      return 1;
                  int out = dup2(from[1], 0);
                  int in = dup2(to[0], 1);
                  close(from[1]);
                  close(to[0]);
                  if (spawn({"/bin/cat"}, SPAWN_CALLER_FDS, &out, &in, nullptr, 0) != nullptr)
                      return 2;
                  return echoes(from[0], to[1], "x") ? 0 : 3;
              }),
              0);
}

TEST_F(spawn_test, ChildHasTheStandardStreamsOnly) {
    const unique_fd low(open("/dev/null", O_RDONLY));
    const unique_fd high(fcntl(low.get(), F_DUPFD, 700));
    // 3 is the shell's own look into the directory.
    EXPECT_THAT(output_of("cd /proc/self/fd; echo *"), testing::AnyOf("0 1 2\n", "0 1 2 3\n"));
    int out = -1;
    ASSERT_EQ(spawn({"/bin/sh", "-c", "echo lost >&2 || echo closed"}, SPAWN_PIPE_FROM_CHILD | SPAWN_NO_STDERR, &out,
                    nullptr, nullptr, 0),
              nullptr);
    const unique_fd own(out);
    EXPECT_EQ(read_to_end(out), "closed\n");
}

TEST_F(spawn_test, ChildStartsWithSignalsAtTheirDefaults) {
    EXPECT_EQ(in_child([] {
                  std::signal(SIGPIPE, SIG_IGN);
                  sigset_t all;
                  sigfillset(&all);
                  pthread_sigmask(SIG_SETMASK, &all, nullptr);
                  int out = -1;  // no shell: it may unblock all signals itself
                  if (spawn({"/bin/grep", "-E", "^Sig(Blk|Ign)", "/proc/self/status"}, SPAWN_PIPE_FROM_CHILD, &out,
                            nullptr, nullptr, 0) != nullptr)
                      return 2;
                  const std::string status = read_to_end(out);
                  return status == "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n" ? 0 : 1;
              }),
              0);
}

TEST(spawn_time_out, KillsTheChildAndLeavesNoZombie) {
    pid_t pid = -1;
    {
        manual_clock_t clock(1000);
        const errdesc_t* e = spawn({"/bin/sleep", "1000"}, SPAWN_WAIT, nullptr, nullptr, &pid, 120);
        ASSERT_EQ(number_of(e), ETIME);
        EXPECT_STREQ(e->string, "/bin/sleep 1000 : Timer expired");
        EXPECT_EQ(clock.slept(), 120);
    }
    fast_clock_t clock(50);
    for (int tries = 0; tries < 500 && spawn_is_alive(pid); tries++)
        clock_sleep(1);
    EXPECT_EQ(spawn_tool({"/bin/true"}, 1000), nullptr);
    errno = 0;
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
}

// Each thread's "cat" ends only when no other child holds the write end of its input: the sleepers, started all the
// time between, would keep it open for ever.
TEST_F(spawn_test, ManyThreadsLeakNeitherDescriptorsNorZombies) {
    const auto before = open_descriptors();
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; t++) {
        threads.emplace_back([] {
            for (int round = 0; round < 15; round++) {
                int out = -1;
                int in = -1;
                pid_t cat = -1;
                pid_t sleeper = -1;
                ASSERT_EQ(spawn({"/bin/cat"}, SPAWN_PIPE_FROM_CHILD | SPAWN_PIPE_TO_CHILD, &out, &in, &cat, 0),
                          nullptr);
                ASSERT_EQ(spawn({"/bin/sleep", "1000"}, 0, nullptr, nullptr, &sleeper, 0), nullptr);
                EXPECT_TRUE(echoes(out, in, "round"));
                EXPECT_EQ(spawn_wait(cat, 0, "cat", 1000), nullptr);
                spawn_kill(sleeper, SIGKILL);
                EXPECT_EQ(spawn_wait(sleeper, 0, "sleep", 1000)->number, EINVAL);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
}

}  // namespace
}  // namespace mirador
