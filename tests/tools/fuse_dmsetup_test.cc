// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "tools/fuse-dmsetup/command_line.h"
#include "tools/fuse-dmsetup/dm_table.h"
#include "tools/fuse-dmsetup/dm_table_reader.h"
#include "tools/fuse-dmsetup/mapper.h"

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
        {"# nothing\n\n", EINVAL, "no targets"},
        {"1 8 zero\n", EINVAL, "line 1: gap before it"},
        {"0 8 zero\n9 8 zero\n", EINVAL, "line 2: gap before it"},
        {"0 8 zero\n7 8 zero\n", EINVAL, "line 2: overlaps the one before it"},
        {"0 0 zero\n", EINVAL, "line 1: empty target"},
        {"0 8 linear /dev/a 993\n", EINVAL, "line 1: ends beyond its device"},
        {"0 8 linear /dev/a 18446744073709551615\n", EINVAL, "line 1: ends beyond its device"},
        {"0 8 linear /dev/a\n", EINVAL, "line 1: a linear target takes a device and an offset"},
        {"0 8 linear /dev/a 1 2\n", EINVAL, "line 1: a linear target takes a device and an offset"},
        {"0 8 linear /dev/a 0x1\n", EINVAL, "line 1: a linear target takes a device and an offset"},
        {"0 8 zero 1\n", EINVAL, "line 1: a zero target takes no argument"},
        {"0 8 striped 2\n", EINVAL, "line 1: unknown target type"},
        {"0 -8 zero\n", EINVAL, "line 1: start and length expected"},
        {"0\n", EINVAL, "line 1: start and length expected"},
        {"0 18446744073709551615 zero\n", EINVAL, "line 1: ends beyond the largest device"},
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

TEST(dm_table, text_may_be_cut_anywhere) {
    const std::string text = "0 8 linear /dev/a 0\n8 8 zero\n16 8 linear /dev/b 8\n";
    for (std::size_t step = 1; step < text.size(); ++step) {
        dm_table_t table;
        const dm_device_opener_t opener = open_fake;
        dm_table_reader_t reader(opener, &table);
        for (std::size_t at = 0; at < text.size(); at += step)
            ASSERT_EQ(reader.feed(std::string_view(text).substr(at, step)), nullptr);
        ASSERT_EQ(reader.finish(), nullptr);
        EXPECT_EQ(printed(table), "0 8 linear 7:1 0\n8 8 zero \n16 8 linear 7:2 8\n") << step;
    }
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

dm_table_t small_table() {
    dm_table_t table;
    EXPECT_EQ(read_text("0 8 linear /dev/a 0\n", &table), nullptr);
    return table;
}

TEST(mapper, names) {
    for (const char* bad : {"", ".", "..", "control", "a/b"})
        EXPECT_NE(mapper_t::check_name(bad), nullptr) << bad;
    EXPECT_NE(mapper_t::check_name(std::string(128, 'x')), nullptr);
    EXPECT_EQ(mapper_t::check_name(std::string(127, 'x')), nullptr);
}

TEST(mapper, a_name_comes_back_as_another_inode) {
    mapper_t mapper;
    ASSERT_EQ(mapper.create("one", small_table()), nullptr);
    EXPECT_EQ(mapper.create("one", small_table())->number, EBUSY);
    const auto first = mapper.find("one");
    ASSERT_TRUE(first);
    EXPECT_EQ(first->size, 8 * sector_size);
    ASSERT_EQ(mapper.remove("one", false), nullptr);
    EXPECT_TRUE(mapper.is_empty());
    EXPECT_EQ(mapper.remove("one", true)->number, ENXIO);
    ASSERT_EQ(mapper.create("one", small_table()), nullptr);
    EXPECT_NE(mapper.find("one")->inode, first->inode);
    EXPECT_FALSE(mapper.open(first->inode));
    EXPECT_EQ(mapper.table(first->inode), nullptr);
}

TEST(mapper, an_open_device_stays_and_fails_only_when_forced) {
    mapper_t mapper;
    std::vector<std::string> changed;
    mapper.on_changed = [&](const mapper_entry_t& entry) { changed.push_back(entry.name); };
    ASSERT_EQ(mapper.create("open", small_table()), nullptr);
    ASSERT_EQ(mapper.create("closed", small_table()), nullptr);
    const mapper_inode_t inode = mapper.find("open")->inode;
    ASSERT_TRUE(mapper.open(inode));
    EXPECT_EQ(mapper.remove("open", false)->number, EBUSY);
    EXPECT_NE(mapper.table(inode), nullptr);
    EXPECT_TRUE(changed.empty());

    mapper.remove_all(true);
    EXPECT_EQ(mapper.list().size(), 1U);
    EXPECT_EQ(mapper.table(inode), nullptr);
    EXPECT_EQ(changed, (std::vector<std::string>{"closed", "open"}));
    mapper.release(inode);
    EXPECT_EQ(mapper.remove("open", false), nullptr);
}

TEST(mapper, removal_waits_for_a_close_that_is_under_way) {
    mapper_t mapper;
    ASSERT_EQ(mapper.create("one", small_table()), nullptr);
    const mapper_inode_t inode = mapper.find("one")->inode;
    ASSERT_TRUE(mapper.open(inode));
    std::jthread closer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        mapper.release(inode);
    });
    EXPECT_EQ(mapper.remove("one", false), nullptr);
}

TEST(mapper, a_read_keeps_its_table_until_it_ends) {
    mapper_t mapper;
    ASSERT_EQ(mapper.create("one", small_table()), nullptr);
    auto read = mapper.table(mapper.find("one")->inode);
    const std::weak_ptr<const dm_table_t> watched = read;
    ASSERT_EQ(mapper.remove("one", false), nullptr);
    EXPECT_FALSE(watched.expired());
    read.reset();
    EXPECT_TRUE(watched.expired()) << "devices stay open";
}

// "top" over "under", which both exist then; "top" has a sector of zeros in front.
void stack(mapper_t* mapper) {
    ASSERT_EQ(mapper->create("under", small_table()), nullptr);
    const dm_device_opener_t opener = [mapper](const std::string& name, dm_device_t* device) -> errdesc_t* {
        device->name = name;
        device->table = mapper->hold(name);
        device->sectors = device->table->sectors();
        return nullptr;
    };
    dm_table_t table;
    ASSERT_EQ(dm_table_read(file_with("0 1 zero\n1 6 linear under 2\n").get(), opener, &table), nullptr);
    ASSERT_EQ(mapper->create("top", std::move(table)), nullptr);
}

TEST(mapper, a_device_over_another_reads_what_that_one_maps) {
    mapper_t mapper;
    stack(&mapper);
    const auto table = mapper.table(mapper.find("top")->inode);
    const auto pieces = table->map(0, 3 * sector_size);
    ASSERT_EQ(pieces.size(), 2U);
    EXPECT_EQ(pieces[0].device, nullptr);
    EXPECT_EQ(pieces[1].device->name, "/dev/a");
    EXPECT_EQ(pieces[1].offset, 2 * sector_size);
    EXPECT_EQ(pieces[1].size, 2 * sector_size);
    EXPECT_EQ(printed(*table), "0 1 zero \n1 6 linear under 2\n");
}

TEST(mapper, a_device_under_another_is_busy_and_goes_after_it) {
    mapper_t mapper;
    stack(&mapper);
    EXPECT_EQ(mapper.remove("under", false)->number, EBUSY);
    EXPECT_EQ(mapper.remove("top", false), nullptr);
    EXPECT_EQ(mapper.remove("under", false), nullptr);

    stack(&mapper);
    mapper.remove_all(false);
    EXPECT_TRUE(mapper.is_empty());

    // What is open stays and gives up what lies under it.
    stack(&mapper);
    const mapper_inode_t top = mapper.find("top")->inode;
    ASSERT_TRUE(mapper.open(top));
    mapper.remove_all(true);
    EXPECT_FALSE(mapper.find("under"));
    EXPECT_TRUE(mapper.find("top"));
    mapper.release(top);
    EXPECT_EQ(mapper.remove("top", false), nullptr);

    stack(&mapper);  // taken down with the set
}

TEST(command_line, is_dmsetups) {
    const struct {
        std::vector<const char*> words;
        bool good;
        command_t command;
        bool force;
        const char* name;
    } cases[] = {
        {{"create", "one"}, true, command_t::create, false, "one"},
        {{"remove", "-f", "/dev/mapper/one"}, true, command_t::remove, true, "one"},
        {{"remove", "one", "--force"}, true, command_t::remove, true, "one"},
        {{"remove_all"}, true, command_t::remove_all, false, ""},
        {{"remove_all", "-f"}, true, command_t::remove_all, true, ""},
        {{"table"}, true, command_t::table, false, ""},
        {{"table", "one"}, true, command_t::table, false, "one"},
        {{"ls"}, true, command_t::list, false, ""},
        {{}, false, {}, false, ""},
        {{"create"}, false, {}, false, ""},
        {{"create", "one", "file", "more"}, false, {}, false, ""},
        {{"create", "-f", "one"}, false, {}, false, ""},
        {{"remove"}, false, {}, false, ""},
        {{"ls", "-x"}, false, {}, false, ""},
        {{"suspend", "one"}, false, {}, false, ""},
    };
    const unique_fd input = file_with("0 8 zero\n");
    for (const auto& c : cases) {
        request_t request;
        const errdesc_t* e = parse_command_line(c.words, input.get(), &request);
        const std::string word = c.words.empty() ? "nothing" : c.words[0];
        ASSERT_EQ(e == nullptr, c.good) << word;
        if (e != nullptr)
            continue;
        EXPECT_EQ(request.command, c.command) << word;
        EXPECT_EQ(request.force, c.force) << word;
        EXPECT_EQ(request.name, c.name) << word;
        EXPECT_EQ(static_cast<bool>(request.table_fd), c.command == command_t::create) << word;
    }
    request_t request;
    EXPECT_EQ(parse_command_line(std::vector<const char*>{"create", "one", "/no/such"}, 0, &request)->number, ENOENT);
}

}  // namespace
}  // namespace mirador
