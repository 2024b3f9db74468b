// SPDX-License-Identifier: Apache-2.0
#include "lib/tmpfs.h"

#include <gmock/gmock.h>

#include "lib/clock.h"
#include "lib/tool_paths.h"
#include "tests/lib/temp_dir.h"

namespace mirador {
namespace {

// The programs are scripts that note their arguments; nothing is mounted.
class tmpfs_test : public testing::Test {
  protected:
    ~tmpfs_test() override { tool_paths() = deployed_; }

    // A script that notes its arguments, then runs `then`.
    std::string tool(const std::string& name, const std::string& then) {
        return write_script(dir / name, "echo \"" + name + " $*\" >> " + (dir / "calls") + "\n" + then + "\n");
    }
    std::string calls() const { return read_file(dir / "calls"); }

    const temp_dir_t dir;
    const std::string shadow = dir / "x/export.shadow";
    fast_clock_t clock{20};

  private:
    const tool_paths_t deployed_ = tool_paths();
};

TEST_F(tmpfs_test, CreateMountsOnANewDirectory) {
    tool_paths().mount = tool("mount", "test -d " + shadow);
    EXPECT_EQ(tmpfs_create(shadow), nullptr);
    EXPECT_EQ(calls(), "mount -t tmpfs -o size=50M,nr_inodes=50000,mode=0755 tmpfs " + shadow + "\n");
    EXPECT_TRUE(std::filesystem::is_directory(shadow));
    EXPECT_EQ(std::filesystem::status(shadow).permissions(), std::filesystem::perms{0755});
    EXPECT_EQ(tmpfs_create(shadow, "size=1M"), nullptr);
    EXPECT_THAT(calls(), testing::EndsWith("mount -t tmpfs -o size=1M tmpfs " + shadow + "\n"));
}

}  // namespace
}  // namespace mirador
