// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/corcbt.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "tests/lib/temp_dir.h"
#include "tests/support/fake_controller.h"
#include "tests/support/record_bytes.h"

namespace mirador {
namespace {

using testing::HasSubstr;

// A file with one record of 1024 bytes at byte 4096 of a disk of a mebibyte, its data from byte 512 on.
record_bytes_t corcbt_bytes() {
    record_bytes_t bytes(1536);
    bytes.number(0, 4, 0xcbcb1111).number(4, 4, 1).number(8, 8, 372).number(16, 8, 512).number(24, 8, 1024);
    bytes.number(32, 8, 1536).number(40, 8, 1 << 20).text(48, "52 de/12").text(112, "web-flat.vmdk");
    bytes.number(372, 4, 0xcbcb5555).number(376, 8, 4096).number(384, 8, 1024);
    return bytes;
}

TEST(corcbt, ExtentsThatCannotBeMappedAreRefused) {
    constexpr std::int64_t disk = 1 << 20;
    constexpr std::int64_t far = INT64_MAX / 512 * 512;
    struct {
        cbt_extent_list_t list;
        const char* fault;  // null: none
    } const cases[] = {
        {{}, nullptr},
        {{{0, 0, disk}}, nullptr},
        {{{0, 0, 512}, {0, 512, 512}, {0, disk - 512, 512}}, nullptr},
        {{{0, -512, 512}}, "negative"},
        {{{0, 512, 0}}, "empty"},
        {{{0, 100, 512}}, "whole sectors"},
        {{{0, 512, 1000}}, "whole sectors"},
        {{{0, disk - 512, 1024}}, "beyond"},
        {{{0, far, far}}, "beyond"},
        {{{0, 0, 1024}, {0, 512, 512}}, "before"},
        {{{0, 4096, 512}, {0, 0, 512}}, "before"},
    };
    for (const auto& c : cases) {
        const errdesc_t* e = cbt_check_extents(c.list, disk);
        ASSERT_EQ(e == nullptr, c.fault == nullptr) << (c.fault != nullptr ? c.fault : e->string);
        if (e == nullptr)
            continue;
        EXPECT_EQ(e->number, EINVAL);
        EXPECT_THAT(e->string, HasSubstr(c.fault));
    }
    EXPECT_NE(cbt_check_extents({{0, 0, 512}}, 0), nullptr);
}

TEST(corcbt, ReaderTakesTheFormatAndRefusesTheRest) {
    const temp_dir_t dir;
    constexpr std::uint64_t minus_one = UINT64_MAX;
    struct {
        record_bytes_t bytes;
        std::size_t size;
        std::size_t extents;
        const char* fault;  // null: none
    } const cases[] = {
        {corcbt_bytes(), 1536, 1, nullptr},
        {corcbt_bytes().number(372, 4, 0xcbcb4444), 1536, 1, "invalid corcbt changed block list"},
        {corcbt_bytes().number(372, 4, 0xcbcb4444).number(392, 4, 0xcbcb5555), 1536, 2, nullptr},
        {corcbt_bytes().number(372, 4, 0xcbcb4444).number(392, 4, 0xcbcb6666), 1536, 1, "changed block list"},
        {corcbt_bytes().number(16, 8, 391), 1536, 0, "changed block list"},
        {corcbt_bytes().number(16, 8, 372), 1536, 0, "changed block list"},
        {corcbt_bytes(), 500, 0, "beyond the end of the file"},
        // Without changed data nothing but the header counts.
        {corcbt_bytes().number(24, 8, 0).number(8, 8, minus_one).number(16, 8, minus_one), 372, 0, nullptr},
        {corcbt_bytes().number(24, 8, 0), 371, 0, "ends after 371 bytes"},
        {corcbt_bytes().number(0, 4, 0xcbcb1112), 1536, 0, "invalid corcbt header magic number"},
        {corcbt_bytes().number(24, 8, minus_one), 1536, 0, "negative"},
        {corcbt_bytes().number(8, 8, minus_one), 1536, 0, "offset of the changed block list"},
        {corcbt_bytes().number(16, 8, 371), 1536, 0, "offset of the changed block list"},
        {corcbt_bytes().number(16, 8, std::uint64_t{1} << 63), 1536, 0, "offset of the changed block list"},
        {corcbt_bytes().number(16, 8, INT64_MAX), 1536, 0, "beyond the end of the file"},
        {corcbt_bytes().fill(48, 64, 'x'), 1536, 0, "text without end"},
        {corcbt_bytes().fill(112, 256, 'x'), 1536, 0, "text without end"},
    };
    for (const auto& c : cases) {
        const std::string path = write_file(dir / "disk-corcbt.vmdk", c.bytes.bytes().substr(0, c.size));
        cbt_file_header_t header;
        cbt_extent_list_t list{{0, 1, 1}};
        const errdesc_t* e = read_corcbt_header(path, &header, &list);
        ASSERT_EQ(e == nullptr, c.fault == nullptr) << (e != nullptr ? e->string : c.fault);
        EXPECT_EQ(list.size(), c.extents);
        if (e == nullptr)
            continue;
        EXPECT_EQ(e->number, EINVAL);
        EXPECT_THAT(e->string, HasSubstr(c.fault));
    }
}

TEST(corcbt, ReaderNeitherWaitsNorTrustsASparseGiant) {
    const temp_dir_t dir;
    cbt_file_header_t header;
    cbt_extent_list_t list;
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    for (const std::string& path : {dir / "fifo", dir.path()})
        EXPECT_EQ(read_corcbt_header(path, &header, &list)->number, EINVAL) << path;
    const errdesc_t* e = read_corcbt_header(dir / "absent", &header, &list);
    EXPECT_EQ(e->number, ENOENT);
    EXPECT_THAT(e->string, testing::StartsWith(dir / "absent"));

    const std::string giant = write_file(dir / "giant", corcbt_bytes().number(16, 8, std::uint64_t{1} << 42).bytes());
    ASSERT_EQ(truncate(giant.c_str(), off_t{1} << 43), 0);
    EXPECT_THAT(read_corcbt_header(giant, &header, &list)->string, HasSubstr("too many changed blocks"));
}

TEST(corcbt, WhatIsBuiltIsReadBack) {
    const temp_dir_t dir;
    constexpr std::int64_t disk = std::int64_t{1} << 42;
    // Around one sector of list, and around one read of the list.
    for (const std::int64_t count : {0, 1, 6, 7, 8, 4095, 4096, 4097, 100'000}) {
        cbt_extent_list_t list;
        for (std::int64_t i = 0; i < count; ++i)
            list.push_back({0, i * 8192, 512 * (i % 16 + 1)});
        cbt_file_header_t built;
        std::string bytes;
        ASSERT_EQ(build_corcbt_header(list, std::string(63, 'c'), "web-flat.vmdk", disk, &built, &bytes), nullptr);
        EXPECT_EQ(bytes.size() % 512, 0U);
        EXPECT_EQ(built.block_data_offset, static_cast<std::int64_t>(bytes.size()));
        EXPECT_LT(bytes.size(), 372 + static_cast<std::size_t>(count) * 20 + 512);

        cbt_file_header_t read;
        cbt_extent_list_t back;
        ASSERT_EQ(read_corcbt_header(write_file(dir / "file", bytes), &read, &back), nullptr) << count;
        EXPECT_EQ(bytes_of(read), bytes_of(built));
        ASSERT_EQ(back.size(), list.size());
        for (std::size_t i = 0; i < list.size(); ++i)
            ASSERT_TRUE(back[i].start == std::int64_t{list[i].start} && back[i].length == std::int64_t{list[i].length});
        EXPECT_EQ(check_corcbt(read, back, read.corcbt_file_size), nullptr) << count;
        if (count != 0) {
            EXPECT_NE(check_corcbt(read, back, read.corcbt_file_size - 1), nullptr) << count;
        }
    }
}

TEST(corcbt, BuilderRefusesWhatTheFormatCannotHold) {
    const struct {
        cbt_extent_list_t list;
        std::size_t changeid;
        std::size_t device;
        std::int64_t disk;
    } cases[] = {
        {{{0, 0, 1000}}, 1, 1, 1 << 20}, {{{0, 0, 1024}}, 1, 1, 1000}, {{}, 1, 1, -512}, {{}, 64, 1, 1 << 20},
        {{}, 1, 256, 1 << 20},
    };
    for (const auto& c : cases) {
        cbt_file_header_t header;
        std::string bytes;
        EXPECT_NE(build_corcbt_header(c.list, std::string(c.changeid, 'c'), std::string(c.device, 'd'), c.disk, &header,
                                      &bytes),
                  nullptr);
    }
}

TEST(corcbt, FilesThatDoNotHoldWhatTheyTellAreRefused) {
    const temp_dir_t dir;
    struct {
        record_bytes_t bytes;
        std::int64_t size;
        const char* fault;  // null: none
    } const cases[] = {
        {corcbt_bytes(), 1536, nullptr},
        {corcbt_bytes(), 4096, nullptr},
        {corcbt_bytes(), 1024, "a file of 1024"},
        {corcbt_bytes().number(32, 8, 2048), 1536, "2048 in its header"},
        {corcbt_bytes().number(32, 8, UINT64_MAX), 1536, "a file of -1"},
        {corcbt_bytes().number(24, 8, 512), 1536, "1024 bytes in changed extents, 512"},
        {corcbt_bytes().number(16, 8, 400), 1536, "begin at byte 400"},
        {corcbt_bytes().number(40, 8, 5000), 1536, "a disk of 5000"},
        {corcbt_bytes().number(40, 8, 4608), 1536, "beyond the end of the disk"},
        {corcbt_bytes().number(376, 8, 4097), 1536, "whole sectors"},
    };
    for (const auto& c : cases) {
        cbt_file_header_t header;
        cbt_extent_list_t list;
        ASSERT_EQ(read_corcbt_header(write_file(dir / "file", c.bytes.bytes()), &header, &list), nullptr);
        const errdesc_t* e = check_corcbt(header, list, c.size);
        ASSERT_EQ(e == nullptr, c.fault == nullptr) << (e != nullptr ? e->string : c.fault);
        if (e != nullptr) {
            EXPECT_THAT(e->string, HasSubstr(c.fault));
        }
    }
}

TEST(corcbt, FileThatOutgrowsItsCompanionRaisesThePercentage) {
    const struct {
        std::int64_t file;
        std::int64_t promised;
        std::uint32_t percent;
        std::uint32_t raised;  // 0: it fits
    } cases[] = {
        {4096, 4096, 5, 0},
        {4097, 4096, 5, 5},  // all companions have 4096 bytes: the percentage was not to blame
        {50'000, 51'200, 5, 0},
        {60'001, 53'248, 5, 9},
        {80'000, 53'248, 5, 11},
        {950'000, 53'248, 5, 100},
        {1'010'000, 1'003'520, 100, 100},
        {INT64_MAX, 4096, 100, 100},
    };
    for (const auto& c : cases) {
        cbt_file_header_t header{};
        header.flat_file_size = 1'000'000;
        header.corcbt_file_size = c.file;
        std::uint32_t raised = 0;
        const errdesc_t* e = check_corcbt_size_percent(header, c.promised, c.percent, &raised);
        EXPECT_EQ(e == nullptr, c.raised == 0) << c.file;
        EXPECT_EQ(raised, c.raised) << c.file;
        if (e != nullptr) {
            EXPECT_EQ(e->number, EFBIG);
        }
    }
}

}  // namespace
}  // namespace mirador
