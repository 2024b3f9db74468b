// SPDX-License-Identifier: Apache-2.0
#include "lib/errdesc.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <thread>

namespace mirador {
namespace {

using testing::EndsWith;
using testing::MatchesRegex;

TEST(errdesc, TextFollowsFromTheNumber) {
    struct {
        errnum_t number;
        const char* text;
    } const cases[] = {
        {ERR_OBJ_NOT_FOUND, "not found"},
        {ERR_REGISTRY_KEY_NOT_FOUND, "registry key not found"},
        {ENOENT, "No such file or directory"},
        {131, "State not recoverable"},
        {0, "unknown error"},
        {132, "unknown error"},
        {ERR_BASE, "unknown error"},
        {ERR_MAX, "unknown error"},
        {-5, "unknown error"},
    };
    for (const auto& c : cases)
        EXPECT_STREQ(errdesc_set(c.number)->string, c.text) << c.number;
    EXPECT_STREQ(errdesc_set_str(ERR_OBJ_NOT_FOUND, "vm1 100%s")->string, "vm1 100%s: not found");
}

TEST(errdesc, OneDescriptorPerThreadCountsItsErrors) {
    const errdesc_t* first = errdesc_set(EIO);
    const auto sequence = first->sequence;
    const errdesc_t* second = errdesc_set(ENOENT);
    EXPECT_EQ(first, second);
    EXPECT_EQ(second->sequence, sequence + 1);
    EXPECT_GT(second->bt_buf.frame_count, 0);

    std::thread([first] {
        const errdesc_t* other = errdesc_set(EPERM);
        EXPECT_NE(other, first);
        EXPECT_EQ(other->sequence, 1U);
        EXPECT_EQ(_errdesc_copy_to_thr(first), other);
        EXPECT_EQ(other->number, ENOENT);
    }).join();
}

TEST(errdesc, KeeperBringsBackTheErrorOnItsWayUp) {
    const errdesc_t* e = errdesc_set_str(EIO, "disk");
    const errdesc_t before = *e;
    {
        const errdesc_keeper_t keep;
        errdesc_set_str(ENOENT, "clean-up");
    }
    EXPECT_EQ(e->number, EIO);
    EXPECT_STREQ(e->string, "disk: Input/output error");
    EXPECT_EQ(e->linenumber, before.linenumber);
    EXPECT_EQ(e->sequence, before.sequence + 1);
}

TEST(errdesc, LongTextsAreCut) {
    EXPECT_EQ(std::string(errdesc_set_fmt(EIO, "%s", std::string(600, 'x').c_str())->string), std::string(511, 'x'));
    EXPECT_EQ(std::string(errdesc_set_str(EIO, std::string(2000, 'y'))->string), std::string(1023, 'y'));
}

TEST(errdesc, ExitStatusOfAChild) {
    errno = ECHILD;
    EXPECT_STREQ(errdesc_exit_status(-1, "tool")->string, "tool: No child processes");
    EXPECT_EQ(errdesc_exit_status(9, "tool")->number, EINVAL);
    EXPECT_EQ(errdesc_exit_status(0, "tool"), nullptr);
    const errdesc_t* e = errdesc_exit_status(3 << 8, "tool %d");
    EXPECT_EQ(e->number, 3);
    EXPECT_STREQ(e->string, "tool %d");
}

TEST(errdesc, PrintedLineNamesLevelPlaceAndNumber) {
    testing::internal::CaptureStdout();
    errdesc_t* e = errdesc_set_str(EIO, "disk");
    _errdesc_print(e, ERRDESC_WARNING);
    _errdesc_print(e, ERRDESC_NOTICE);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_THAT(out,
                MatchesRegex("[-0-9]+ [:0-9]+\\.[0-9]+: WARNING \\[thread:[0-9]+, where:.*errdesc_test\\.cc:[0-9]+, "
                             "error:5\\] disk: Input/output error\n[-0-9]+ [:.0-9]+ ERROR .*\n"));
    EXPECT_EQ(e->status, ERRDESC_ALLOCATED | ERRDESC_PRINTED);
}

TEST(errdesc, ExtendedErrorWithoutAttributesIsTheNumberAndThePath) {
    EXPECT_STREQ(errdesc_set_extended_err(EIO, "/proc/self/stat")->string, "/proc/self/stat: Input/output error");
    EXPECT_STREQ(errdesc_set_extended_err(EIO, "")->string, "Input/output error");
}

}  // namespace
}  // namespace mirador
