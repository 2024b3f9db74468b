// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <random>
#include <string>
#include <vector>

#include "tools/fuse-dmsetup/dm_table.h"
#include "tools/fuse-dmsetup/dm_table_reader.h"

namespace mirador {
namespace {

// Two devices, "/dev/a" of 1000 sectors (7:1) and "/dev/b" of 2000 (7:2); others are absent.
errdesc_t* open_fake(const std::string& name, dm_device_t* device) {
    if (name != "/dev/a" && name != "/dev/b")
        return errdesc_set_str(ENOENT, name);
    device->name = name;
    device->major = 7;
    device->minor = name == "/dev/a" ? 1 : 2;
    device->sectors = name == "/dev/a" ? 1000 : 2000;
    return nullptr;
}

unique_fd file_with(const std::string& text) {
    unique_fd fd(memfd_create("table", MFD_CLOEXEC));
    EXPECT_EQ(write(fd.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    lseek(fd.get(), 0, SEEK_SET);
    return fd;
}

errdesc_t* read_text(const std::string& text, dm_table_t* table) {
    return dm_table_read(file_with(text).get(), open_fake, table);
}

std::string printed(const dm_table_t& table, const std::string& prefix = "") {
    std::string text;
    table.print(prefix, [&](std::string_view part) {
        text += part;
        return true;
    });
    return text;
}

TEST(dm_table, reads_and_prints) {
    dm_table_t table;
    ASSERT_EQ(
        read_text("# a comment\n\n0 8 linear /dev/a 992\n 8\t1 zero\n9 100 linear /dev/b 0\n109 1 linear /dev/a 0",
                  &table),
        nullptr);
    EXPECT_EQ(table.sectors(), 110U);
    EXPECT_EQ(printed(table), "0 8 linear 7:1 992\n8 1 zero \n9 100 linear 7:2 0\n109 1 linear 7:1 0\n");
    EXPECT_EQ(printed(table, "d: ").substr(0, 24), "d: 0 8 linear 7:1 992\nd:");
}

TEST(dm_table, turns_down_what_the_kernel_would) {
    const struct {
        const char* text;
        int number;
        const char* message;
    } cases[] = {
        {"", EINVAL, "no targets"},
        {"1 8 zero\n", EINVAL, "line 1: gap before it"},
        {"0 8 zero\n7 8 zero\n", EINVAL, "line 2: overlaps the one before it"},
        {"0 0 zero\n", EINVAL, "line 1: empty target"},
        {"0 8 linear /dev/a 993\n", EINVAL, "line 1: ends beyond its device"},
        {"0 8 linear /dev/a 18446744073709551615\n", EINVAL, "line 1: ends beyond its device"},
        {"0 8 linear /dev/a\n", EINVAL, "line 1: a linear target takes a device and an offset"},
        {"0 8 zero 1\n", EINVAL, "line 1: a zero target takes no argument"},
        {"0 8 striped 2\n", EINVAL, "line 1: unknown target type"},
        {"0 -8 zero\n", EINVAL, "line 1: start and length expected"},
        {"0 8 zero\n8 18446744073709551615 zero\n", EINVAL, "line 2: ends beyond the largest device"},
        {"0 8 linear /dev/c 0\n", ENOENT, "/dev/c: No such file or directory"},
    };
    for (const auto& c : cases) {
        dm_table_t table;
        const errdesc_t* e = read_text(c.text, &table);
        ASSERT_NE(e, nullptr) << c.text;
        EXPECT_EQ(e->number, c.number) << c.text;
        EXPECT_STREQ(e->string, c.message) << c.text;
    }
    dm_table_t table;
    EXPECT_NE(read_text(std::string(1 << 20, '1'), &table), nullptr) << "a line without end";
}

// For every byte of a mapped device: the minor number it lies on (0: none) and where.
using model_t = std::vector<std::pair<unsigned, std::uint64_t>>;

std::string random_table(std::mt19937* random, model_t* model) {
    std::string text;
    std::uint64_t start = 0;
    for (int target = 0; target < 40; ++target) {
        const std::uint64_t length = 1 + (*random)() % 5;
        const auto device = static_cast<unsigned>((*random)() % 3);
        // Often right behind the place before, so that neighbours join.
        const std::uint64_t follows = model->empty() ? 0 : (model->back().second + 1) / sector_size;
        const std::uint64_t offset = (*random)() % 2 != 0 ? follows : (*random)() % 900;
        text += std::to_string(start) + " " + std::to_string(length);
        text += device == 0 ? " zero\n"
                            : (device == 1 ? " linear /dev/a " : " linear /dev/b ") + std::to_string(offset) + "\n";
        for (std::uint64_t byte = 0; byte < length * sector_size; ++byte)
            model->emplace_back(device, device == 0 ? std::uint64_t{0} : offset * sector_size + byte);
        start += length;
    }
    return text;
}

TEST(dm_table, maps_every_byte) {
    std::mt19937 random(1);
    for (int round = 0; round < 20; ++round) {
        model_t model;
        dm_table_t table;
        ASSERT_EQ(read_text(random_table(&random, &model), &table), nullptr);
        for (int range = 0; range < 200; ++range) {
            const std::uint64_t offset = random() % (model.size() + 100);
            const std::size_t size = random() % 4000;
            std::uint64_t at = offset;
            const dm_piece_t* before = nullptr;
            const auto pieces = table.map(offset, size);
            for (const dm_piece_t& piece : pieces) {
                ASSERT_GT(piece.size, 0U);
                EXPECT_FALSE(before != nullptr && before->device == piece.device &&
                             (piece.device == nullptr || before->offset + before->size == piece.offset))
                    << "neighbours not joined";
                for (std::size_t byte = 0; byte < piece.size; ++byte, ++at) {
                    ASSERT_LT(at, model.size());
                    ASSERT_EQ(model[at].first, piece.device == nullptr ? 0U : piece.device->minor);
                    ASSERT_EQ(model[at].second, piece.device == nullptr ? std::uint64_t{0} : piece.offset + byte);
                }
                before = &piece;
            }
            EXPECT_EQ(at, std::max<std::uint64_t>(offset, std::min<std::uint64_t>(offset + size, model.size())));
        }
    }
}

}  // namespace
}  // namespace mirador
