// SPDX-License-Identifier: Apache-2.0
#include "lib/cor_string.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>

namespace mirador {
namespace {

TEST(cor_string, BoundedFormattingCutsOrAborts) {
    std::array<char, 8> buf{};
    cor_snprintf(buf.data(), buf.size(), "%s", "seven..");
    EXPECT_STREQ(buf.data(), "seven..");
    EXPECT_DEATH(cor_snprintf(buf.data(), buf.size(), "%s", "eight..."), "ASSERT: .*length.*cor_string");
    cor_safe_snprintf(buf.data(), buf.size(), "%s", "much too long");
    EXPECT_STREQ(buf.data(), "much to");
    EXPECT_EQ(cor_format("%s-%d", std::string(5000, 'x').c_str(), 7), std::string(5000, 'x') + "-7");
    EXPECT_EQ(cor_format_path("%s", std::string(4095, 'x').c_str()).size(), 4095U);
    EXPECT_DEATH((void)cor_format_path("%s", std::string(4096, 'x').c_str()), "path_size");
}

TEST(cor_string, BoundedCopyingFillsAndTerminates) {
    std::array<char, 8> buf;
    buf.fill('#');
    cor_safe_strncpy(buf.data(), "ab", 6);
    EXPECT_EQ(std::memcmp(buf.data(), "ab\0\0\0\0##", 8), 0);
    cor_safe_strncpy(buf.data(), "abcdefgh", 8);
    EXPECT_STREQ(buf.data(), "abcdefg");

    // The size bounds the text appended, not the sum.
    std::array<char, 16> sum{};
    cor_safe_strncpy(sum.data(), "12345", sum.size());
    cor_safe_strncat(sum.data(), "abcdef", 5);
    EXPECT_EQ(std::memcmp(sum.data(), "1234\0abcd\0", 10), 0);
    cor_safe_strncpy(sum.data(), "123", sum.size());
    cor_safe_strncat(sum.data(), "ab", sum.size());
    EXPECT_STREQ(sum.data(), "123ab");
}

TEST(cor_string, EscapesAndSplits) {
    EXPECT_EQ(cor_string_escape_spaces(" a b  "), "\\ a\\ b\\ \\ ");
    EXPECT_EQ(cor_string_escape_char("a'b", '\''), "a\\'b");
    EXPECT_EQ(cor_string_escape_char("", 'x'), "");
    EXPECT_EQ(last_component("/vm/disk.vmdk"), "disk.vmdk");
    EXPECT_EQ(last_component("disk.vmdk"), "disk.vmdk");
    EXPECT_EQ(last_component("/vm/"), "");
}

}  // namespace
}  // namespace mirador
