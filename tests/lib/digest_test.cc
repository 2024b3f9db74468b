// SPDX-License-Identifier: Apache-2.0
#include "lib/digest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

namespace mirador {
namespace {

using testing::EndsWith;
using testing::IsEmpty;

std::string trace(ssize_t size, const void* buf) {
    testing::internal::CaptureStdout();
    DEBUG_digest_buf("reader", "/vm/disk", 1024, size, buf, nullptr);
    return testing::internal::GetCapturedStdout();
}

TEST(digest, TracesFailuresAlwaysAndContentOnDemand) {
    char text[] = "abc";
    const std::vector<char> zeros(100);
    EXPECT_THAT(trace(0, text), EndsWith(", 0, 1024, /vm/disk): size = 0, err = (nil)\n"));
    EXPECT_THAT(trace(3, text), IsEmpty());
    _verbose_debug_enabled = true;
    EXPECT_THAT(trace(3, text), EndsWith(", 3, 1024, /vm/disk): md5 = 900150983cd24fb0d6963f7d28e17f72\n"));
    EXPECT_THAT(trace(100, zeros.data()), IsEmpty());
    _verbose_debug_enabled = false;
}

TEST(digest, FindsAByteThatIsNotZeroAnywhere) {
    std::vector<char> buf(4099);
    EXPECT_FALSE(buf_has_non_zero_content(buf.data(), buf.size()));
    EXPECT_FALSE(buf_has_non_zero_content(buf.data(), 0));
    for (const std::size_t at : {0U, 1U, 2048U, 4098U}) {
        buf[at] = 1;
        EXPECT_TRUE(buf_has_non_zero_content(buf.data(), buf.size())) << at;
        EXPECT_FALSE(buf_has_non_zero_content(buf.data(), at)) << at;
        buf[at] = 0;
    }
}

}  // namespace
}  // namespace mirador
