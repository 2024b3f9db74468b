// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/cbt_results.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "lib/cor_string.h"
#include "tests/lib/temp_dir.h"

namespace mirador {
namespace {

// "<start>+<length> …|<change id>", or the error's number and text.
std::string outcome(const std::string& path, bool changeid_only) {
    cbt_extent_list_t list = {{.magic = 0, .start = 7, .length = 7}};  // of an earlier file
    std::string changeid = "earlier";
    if (const errdesc_t* e = cbt_process_list(path, changeid_only, &list, &changeid))
        return cor_format("%d %s", e->number, e->string);
    std::string text;
    for (const cbt_extent_data_t& extent : list)
        text +=
            cor_format("%jd+%jd ", static_cast<std::intmax_t>(extent.start), static_cast<std::intmax_t>(extent.length));
    return text + "|" + changeid;
}

class cbt_results_test : public testing::Test {
  protected:
    std::string read(const std::string& content, bool changeid_only = false) const {
        return outcome(write_file(dir_ / "results", content), changeid_only);
    }

    const temp_dir_t dir_;
};

TEST_F(cbt_results_test, RangesStandInTheFilesOrderAndNoneIsLost) {
    const std::string invalid = "1009 Invalid cbt results: invalid argument";
    const struct {
        const char* why;
        const char* content;
        std::string expected;
    } cases[] = {
        {"nothing", "", "|"},
        {"whole", "changeid: 52 de/7\nlength: 512\nstart: 1024\nlength: 65536\nstart: 0\n",
         "1024+512 0+65536 |52 de/7"},
        {"change id behind the ranges, last line without an end", "length: 1\nstart: 2\nchangeid: a/1", "2+1 |a/1"},
        {"other line ends", "changeid: a/1\r\nlength: 5\r\nstart: 6\r\n", "6+5 |a/1"},
        {"comments", "# length: 1\nlength: 5 # five\nlength: 6\n#\nstart: 7\n", "7+6 |"},
        {"largest number", "length: 9223372036854775807\nstart: 0\n", "0+9223372036854775807 |"},
        {"start without length", "start: 0\n", invalid},
        {"length without start", "length: 1\nlength: 2\nstart: 0\n", invalid},
        {"cut behind a length", "length: 1\nstart: 0\nlength: 2\n", invalid},
        {"empty line", "changeid: a/1\n\nlength: 1\nstart: 0\n", invalid},
        {"keyword not at the line's start", " length: 1\nstart: 0\n", invalid},
        {"sign", "length: -1\nstart: 0\n", invalid},
        {"digits and more", "length: 12k\nstart: 0\n", invalid},
        {"beyond 63 bits", "length: 9223372036854775808\nstart: 0\n", invalid},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(read(c.content), c.expected) << c.why;
        const bool is_valid = c.expected != invalid;
        EXPECT_EQ(read(c.content, true), is_valid ? c.expected.substr(c.expected.find('|')) : invalid) << c.why;
    }
}

TEST_F(cbt_results_test, OnlyARegularFileIsRead) {
    EXPECT_EQ(outcome(dir_ / "none", false).substr(0, 2), "2 ");
    write_file(dir_ / "other", "changeid: a/1\n");
    ASSERT_EQ(symlink((dir_ / "other").c_str(), (dir_ / "link").c_str()), 0);
    EXPECT_EQ(outcome(dir_ / "link", false).substr(0, 3), cor_format("%d ", ELOOP));
    ASSERT_EQ(mkfifo((dir_ / "fifo").c_str(), 0600), 0);
    EXPECT_EQ(outcome(dir_ / "fifo", false).substr(0, 3), cor_format("%d ", EINVAL));
}

}  // namespace
}  // namespace mirador
