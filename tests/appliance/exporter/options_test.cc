// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/options.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "appliance/exporter/mirador.h"
#include "tests/lib/temp_dir.h"

namespace mirador {
namespace {

std::vector<char*> argument_vector(std::vector<std::string>& words) {
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    return argv;
}

// What the parser makes of a command line, for a child process to print.
void print_parsed(std::vector<std::string> words) {
    std::vector<char*> argv = argument_vector(words);
    fuse_args args = FUSE_ARGS_INIT(static_cast<int>(words.size()), argv.data());
    if (!mirador_parse_options(&args))
        std::exit(9);
    const mirador_options_t& o = fs_options();
    const auto text = [](const char* value) { return value == nullptr ? "-" : value; };
    std::fprintf(stderr, "mount=%s tmpfs=%s opts=%s log=%s threads=%u ro=%u dir=%u help=%u version=%u fuse=",
                 text(o.proxy_mount_point), text(o.tmpfs_mount_point), text(o.tmpfs_mount_options), text(o.log_dir),
                 o.start_cnt_threads, o.is_readonly, o.use_existing_dir, o.show_help, o.show_version);
    for (int i = 1; i < args.argc; i++)
        std::fprintf(stderr, "%s,", args.argv[i]);
    std::exit(0);
}

// The paths that the daemon works with when it is started in `directory`, for a child process to print.
void print_paths(const std::string& directory, std::vector<std::string> words) {
    std::vector<char*> argv = argument_vector(words);
    fuse_args args = FUSE_ARGS_INIT(static_cast<int>(words.size()), argv.data());
    if (chdir(directory.c_str()) != 0 || !mirador_parse_options(&args))
        std::exit(9);
    options_settle_log_dir();
    options_settle_mount_points(&args);
    const mirador_options_t& o = fs_options();
    std::string text = std::string(o.proxy_mount_point) + " " + o.tmpfs_mount_point + " fuse=";
    for (int i = 1; i < args.argc; i++)
        text += std::string(args.argv[i]) + ",";
    if (o.log_dir != nullptr)
        text += std::string(" log=") + o.log_dir;
    for (std::size_t at = 0; (at = text.find(directory, at)) != std::string::npos;)
        text.replace(at, directory.size(), "~");
    std::fprintf(stderr, "<%s>", text.c_str());
    std::exit(0);
}

void run_main(std::vector<std::string> words) {
    std::vector<char*> argv = argument_vector(words);
    std::exit(mirador_main(static_cast<int>(words.size()), argv.data()));
}

TEST(options, CommandLinesAreParsed) {
    struct {
        std::vector<std::string> words;
        const char* parsed;
    } const cases[] = {
        {{"mirador", "/x"}, "mount=/x tmpfs=- opts=- log=- threads=1 ro=1 dir=0 help=0 version=0 fuse=/x,"},
        {{"mirador", "/x", "/y"}, "mount=/x tmpfs=-.*fuse=/x,/y,"},
        {{"mirador", "-L", "/log", "-P/sh", "-O", "size=1M", "/x"}, "mount=/x tmpfs=/sh opts=size=1M log=/log "},
        {{"mirador", "--log-dir", "/log", "--tmpfs-path=/sh", "--tmpfs-opts=size=1M", "/x"},
         "tmpfs=/sh opts=size=1M log=/log "},
        {{"mirador", "-W", "-D", "--no-threads", "-h", "-V", "/x"}, "threads=0 ro=0 dir=1 help=1 version=1 fuse=/x,"},
        {{"mirador", "--writable", "--use-dir", "--help", "--version"}, "mount=- .* ro=0 dir=1 help=1 version=1"},
        {{"mirador", "-L", "", "-P", "", "--tmpfs-opts=", "/x"}, "mount=/x tmpfs=- opts=- log=- "},
        {{"mirador", "-o", "allow_other", "-f", "/x"}, "fuse=-o,allow_other,-f,/x,"},
    };
    for (const auto& c : cases)
        EXPECT_EXIT(print_parsed(c.words), testing::ExitedWithCode(0), c.parsed);
}

// As the mount table will show them.
TEST(options, PathsAreSettled) {
    const temp_dir_t made;
    const std::string dir = std::filesystem::canonical(made.path());
    for (const char* name : {"real", "other/deep"})
        std::filesystem::create_directories(dir + "/" + name);
    std::filesystem::create_symlink("real", dir + "/link");
    std::filesystem::create_symlink("other/deep", dir + "/deep");
    struct {
        std::vector<std::string> words;
        const char* paths;
    } const cases[] = {
        {{"mirador", "real"}, "<~/real ~/real.shadow fuse=~/real,>"},
        {{"mirador", dir + "/real//"}, "<~/real ~/real.shadow fuse=~/real,>"},
        {{"mirador", "./other/../real/."}, "<~/real ~/real.shadow fuse=~/real,>"},
        {{"mirador", "."}, "<~ ~.shadow fuse=~,>"},
        {{"mirador", "/"}, "</ /.shadow fuse=/,>"},
        {{"mirador", "link/"}, "<~/real ~/link.shadow fuse=~/real,>"},
        {{"mirador", "deep/../../real"}, "<~/real ~/real.shadow fuse=~/real,>"},
        {{"mirador", "missing"}, "<~/missing ~/missing.shadow fuse=~/missing,>"},
        {{"mirador", "-P", "link/new/./shadow/", "real"}, "<~/real ~/real/new/shadow fuse=~/real,>"},
        {{"mirador", "-P", "new/../shadow", "real"}, "<~/real ~/shadow fuse=~/real,>"},
        {{"mirador", "-o", "real", "real"}, "<~/real ~/real.shadow fuse=-o,real,~/real,>"},
        {{"mirador", "-L", "logs/../logs", "real"}, "<~/real ~/real.shadow fuse=~/real, log=~/logs/../logs>"},
    };
    for (const auto& c : cases)
        EXPECT_EXIT(print_paths(dir, c.words), testing::ExitedWithCode(0), c.paths) << c.words.back();
}

// The function alone: behind it, recovery removes the shadow.
TEST(options, MountPointsLieApart) {
    struct {
        std::string shadow;
        std::string mount_point;
        bool passes;
    } const cases[] = {
        {"/x.shadow", "/x", true}, {"/a/x", "/a/xy", true}, {"/x", "/x", false},
        {"/x/y", "/x", false},     {"/", "/x", false},      {"/x", "/x/y/z", false},
    };
    for (auto c : cases) {
        fs_options().tmpfs_mount_point = c.shadow.data();
        fs_options().proxy_mount_point = c.mount_point.data();
        testing::internal::CaptureStderr();
        EXPECT_EQ(options_check_mount_points(), c.passes) << c.shadow << " " << c.mount_point;
        EXPECT_EQ(testing::internal::GetCapturedStderr().empty(), c.passes);
    }
    fs_options().tmpfs_mount_point = fs_options().proxy_mount_point = nullptr;
}

// Only command lines that end the program before it touches the machine.
TEST(options, CommandLinesThatEndAtOnce) {
    EXPECT_EXIT(run_main({"mirador", "-V"}), testing::ExitedWithCode(1), "Mount point must be provided");
    EXPECT_EXIT(run_main({"mirador", ""}), testing::ExitedWithCode(1), "Mount point must be provided");
    EXPECT_EXIT(run_main({"mirador", "-W", "/x"}), testing::ExitedWithCode(1),
                "The ``--writable'' option is not currently supported.");
    EXPECT_EXIT(run_main({"mirador", "-h", "-W", "/x"}), testing::ExitedWithCode(0), "");
    EXPECT_EXIT(run_main({"mirador", "/nowhere/at/all"}), testing::ExitedWithCode(1),
                "mirador: /nowhere/at/all: No such file or directory");
    EXPECT_EXIT(run_main({"mirador", "/nowhere", "/second"}), testing::ExitedWithCode(1),
                "^mirador: /second: there is a mount point already\n$");
    EXPECT_EXIT(run_main({"mirador", "/proc/version"}), testing::ExitedWithCode(1),
                "mirador: /proc/version: Not a directory");
}

}  // namespace
}  // namespace mirador
