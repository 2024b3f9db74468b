// SPDX-License-Identifier: Apache-2.0
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "tools/fuse-dmsetup/dm_table.h"
#include "tools/fuse-dmsetup/dm_table_reader.h"

namespace mirador {
namespace {

// "/dev/a" has 1000 sectors; others are absent.
errdesc_t* open_fake(const std::string& name, dm_device_t* device) {
    if (name != "/dev/a")
        return errdesc_set_str(ENOENT, name);
    device->name = name;
    device->sectors = 1000;
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

}  // namespace
}  // namespace mirador
