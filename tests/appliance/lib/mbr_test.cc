// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/mbr.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "lib/file_io.h"
#include "tests/lib/temp_dir.h"

namespace mirador {
namespace {

constexpr std::size_t disk_bytes = std::size_t{8} << 20;

// A disk image partitioned by sfdisk.
std::string partitioned(const temp_dir_t& dir, const std::string& script) {
    const std::string path = write_file(dir / "disk", "");
    EXPECT_EQ(truncate(path.c_str(), disk_bytes), 0);
    const std::string command = "printf '" + script + "' | /sbin/sfdisk -q " + path;
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    return path;
}

struct found_t {
    errnum_t number = 0;
    std::string text;
    std::uint32_t sector = 7;
};

found_t find(const std::string& path) {
    const unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    found_t found;
    if (const errdesc_t* e = find_free_sector_by_partition(fd.get(), &found.sector)) {
        found.number = e->number;
        found.text = e->string;
    }
    return found;
}

// Which sector of any disk is taken, fuzz_mbr compares byte by byte.
TEST(mbr, FirstPartitionDecidesWhetherThereIsRoom) {
    const temp_dir_t dir;
    struct {
        const char* script;
        std::uint32_t sector;
        const char* text;
    } const cases[] = {
        {"label: dos\n start=1, size=100, type=83\n", no_sector,
         "partition start at 1, sectors 2 to 16 are not available"},
        {"label: dos\n start=2, size=100, type=83\n", no_sector,
         "partition start at 2, sectors 2 to 16 are not available"},
        {"label: dos\n start=3, size=100, type=83\n", 2, ""},
        {"label: dos\n start=63, size=100, type=83\n", 2, ""},
        {"label: dos\n start=2048, size=100, type=83\n", 2, ""},
        {"label: dos\n start=4000, size=9, type=83\n start=2, size=9, type=83\n", no_sector,
         "partition start at 2, sectors 2 to 16 are not available"},
        {"label: dos\n", 2, ""},
        {"label: gpt\n ,,L\n", no_sector, "partition start at 1, sectors 2 to 16 are not available"},
    };
    for (const auto& c : cases) {
        const found_t found = find(partitioned(dir, c.script));
        EXPECT_EQ(found.sector, c.sector) << c.script;
        EXPECT_EQ(found.text, c.text) << c.script;
        EXPECT_EQ(found.number, c.sector == no_sector ? EIO : 0) << c.script;
    }
}

}  // namespace
}  // namespace mirador
