// SPDX-License-Identifier: Apache-2.0
#include "lib/fs_info.h"

#include <gtest/gtest.h>

namespace mirador {
namespace {

TEST(fs_info, InodeNumberIsTheHashOfThePath) {
    EXPECT_EQ(fs_ino_hash(""), 5381U);
    EXPECT_EQ(fs_ino_hash("a"), 0x2b5c4U);
    EXPECT_EQ(fs_ino_hash("/vm/disk-flat.vmdk"), 0x36453b83U);
    EXPECT_EQ(fs_ino_hash("/b\xc3\xbc"
                          "cher"),
              0x2fcb862bU);
}

}  // namespace
}  // namespace mirador
