// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/mbr.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "lib/file_io.h"
#include "tests/lib/temp_dir.h"
#include "tests/support/record_bytes.h"

namespace mirador {
namespace {

using testing::StartsWith;

constexpr std::size_t disk_bytes = std::size_t{8} << 20;

// A disk image partitioned by sfdisk.
std::string partitioned(const temp_dir_t& dir, const std::string& script) {
    const std::string path = write_file(dir / "disk", "");
    EXPECT_EQ(truncate(path.c_str(), disk_bytes), 0);
    const std::string command = "printf '" + script + "' | /sbin/sfdisk -q " + path;
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    return path;
}

void put(const std::string& path, std::size_t sector, std::size_t offset, std::string_view bytes) {
    const unique_fd fd(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(pwrite(fd.get(), bytes.data(), bytes.size(), static_cast<off_t>(sector * 512 + offset)),
              static_cast<ssize_t>(bytes.size()));
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

TEST(mbr, FirstSectorThatNothingUsesWins) {
    const temp_dir_t dir;
    const auto disk = [&](const char* start) {
        return partitioned(dir, "label: dos\n start=" + std::string(start) + ", size=100, type=83\n");
    };
    std::string path = disk("2048");
    put(path, 2, 511, "x");
    EXPECT_EQ(find(path).sector, 3U);
    put(path, 3, 0, "KVDH");  // the beginning of a header without its end
    EXPECT_EQ(find(path).sector, 4U);
    put(path, 2, 0, "KVDH");
    put(path, 2, 508, "KVDH");  // an older header is written again in its place
    EXPECT_EQ(find(path).sector, 2U);

    path = disk("2048");
    for (std::size_t sector = 2; sector <= 15; sector++)
        put(path, sector, sector, "x");
    EXPECT_EQ(find(path).sector, 16U);
    put(path, 16, 0, "x");
    EXPECT_EQ(find(path).text, "Cannot find any empty sector between 2-16");

    path = disk("3");
    put(path, 2, 0, "x");
    EXPECT_EQ(find(path).text, "Cannot find any empty sector between 2-16");
}

TEST(mbr, DisksWithoutRecordOrTooShort) {
    const temp_dir_t dir;
    EXPECT_EQ(find(write_file(dir / "disk", std::string(511, '\0'))).number, ENODATA);
    EXPECT_EQ(find(write_file(dir / "disk", "")).number, ENODATA);
    EXPECT_THAT(find(write_file(dir / "disk", std::string(8192, '\0'))).text, StartsWith("unknown partition format"));
    // Only the record itself: no sector behind it can be read.
    EXPECT_EQ(find(write_file(dir / "disk", record_bytes_t(1024 + 511).number(510, 2, 0xAA55).bytes())).sector,
              no_sector);
    EXPECT_EQ(find(write_file(dir / "disk", record_bytes_t(1024 + 512).number(510, 2, 0xAA55).bytes())).sector, 2U);
}

}  // namespace
}  // namespace mirador
