// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/vm_proxy_header.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <limits>

#include "lib/file_io.h"
#include "tests/lib/error_number.h"
#include "tests/lib/temp_dir.h"
#include "tests/support/record_bytes.h"

namespace mirador {
namespace {

// A shadow file of a flat disk, field by field where each stands on disk.
record_bytes_t golden_bytes() {
    record_bytes_t b(960);
    b.number(0, 4, 0xffffffff).number(4, 4, 1).number(8, 4, 1);
    b.number(12, 8, 0x0102030405060708).number(24, 4, 0x9abcdef0).number(28, 4, 0100644).number(32, 4, 2);
    b.number(36, 4, 1000).number(40, 4, 1001).number(44, 8, 0x1112131415161718);
    b.number(56, 8, 5'000'000'000).number(64, 4, 4096).number(68, 8, 9'765'625);
    b.number(76, 4, 1'600'000'000).number(80, 4, 11);
    b.number(84, 4, 1'600'000'001).number(88, 4, 12);
    b.number(92, 4, 1'600'000'002).number(96, 4, 13).number(100, 8, 0x123456789abcdef0);
    b.number(108, 4, 1).number(112, 4, 1);
    b.text(116, "/vmfs/volumes/ds/vm/disk-flat.vmdk").text(629, "564d7a1b-2c3d-4e5f-6071-8293a4b5c6d7");
    b.text(693, "esx1.example");
    return b;
}

struct stat golden_stat() {
    struct stat st = {};
    st.st_dev = 0x0102030405060708;
    st.st_ino = 0x123456789abcdef0;
    st.st_mode = 0100644;
    st.st_nlink = 2;
    st.st_uid = 1000;
    st.st_gid = 1001;
    st.st_rdev = 0x1112131415161718;
    st.st_size = 5'000'000'000;
    st.st_blksize = 4096;
    st.st_blocks = 9'765'625;
    st.st_atim = {.tv_sec = 1'600'000'000, .tv_nsec = 11};
    st.st_mtim = {.tv_sec = 1'600'000'001, .tv_nsec = 12};
    st.st_ctim = {.tv_sec = 1'600'000'002, .tv_nsec = 13};
    return st;
}

vm_proxy_header_t golden_header() {
    vm_proxy_header_t h = vm_proxy_header_make(VM_PROXY_HEADER_VMDK_FLAT);
    h.statb = cor_statb_from_stat(golden_stat());
    h.can_optimize = 1;
    h.can_snapshot = 1;
    std::strcpy(h.path, "/vmfs/volumes/ds/vm/disk-flat.vmdk");
    std::strcpy(h.vm_uuid, "564d7a1b-2c3d-4e5f-6071-8293a4b5c6d7");
    std::strcpy(h.hv_name, "esx1.example");
    return h;
}

TEST(statb, ValuesBeyondTheRecordBecomeTheNearest) {
    struct stat st = {};
    st.st_nlink = 1ULL << 40;
    st.st_mtim.tv_sec = 1LL << 33;
    st.st_atim.tv_sec = -(1LL << 33);
    const cor_statb_t statb = cor_statb_from_stat(st);
    EXPECT_EQ(std::uint32_t{statb.nlink}, std::numeric_limits<std::uint32_t>::max());
    EXPECT_EQ(std::int32_t{statb.mtime_sec}, std::numeric_limits<std::int32_t>::max());
    EXPECT_EQ(std::int32_t{statb.atime_sec}, std::numeric_limits<std::int32_t>::min());
}

TEST(vm_proxy_header, FilesHoldTheLayout) {
    const temp_dir_t dir;
    const std::string path = dir / "disk-flat.vmdk";
    ASSERT_EQ(vm_proxy_write_header(golden_header(), path), nullptr);
    EXPECT_EQ(read_file(path), golden_bytes().bytes());

    std::unique_ptr<vm_proxy_header_t> checked;
    ASSERT_EQ(vm_proxy_read_header_checked(path, &checked), nullptr);
    EXPECT_EQ(bytes_of(*checked), golden_bytes().bytes());
}

TEST(vm_proxy_header, WriteReplacesTheFileAndLeavesNothingBeside) {
    const temp_dir_t dir;
    const std::string path = write_file(dir / "disk", "old content");
    write_file(dir / "disk.tmp", std::string(2000, 'x'));  // what a killed writer left
    const unique_fd old(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(vm_proxy_write_header(golden_header(), path), nullptr);

    EXPECT_EQ(read_file(path).size(), 960U);
    EXPECT_EQ(read_file("/proc/self/fd/" + std::to_string(old.get())), "old content");
    EXPECT_FALSE(std::filesystem::exists(path + ".tmp"));

    ASSERT_EQ(vm_proxy_write_header(golden_header(), dir / "new"), nullptr);
    struct stat st = {};
    ASSERT_EQ(stat((dir / "new").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777U & ~0600U, 0U);
}

TEST(vm_proxy_header, FailedWritesLeaveNothingBeside) {
    const temp_dir_t dir;
    const std::string blocked = dir / "directory";
    std::filesystem::create_directory(blocked);
    const errdesc_t* e = vm_proxy_write_header(golden_header(), blocked);
    ASSERT_EQ(number_of(e), EISDIR);
    EXPECT_EQ(std::string(e->string), "rename " + blocked + ".tmp to " + blocked + " failed");
    EXPECT_FALSE(std::filesystem::exists(blocked + ".tmp"));

    std::filesystem::create_symlink("/dev/full", dir / "disk.tmp");
    EXPECT_EQ(number_of(vm_proxy_write_header(golden_header(), dir / "disk")), ELOOP);
    EXPECT_FALSE(std::filesystem::is_symlink(dir / "disk.tmp"));
    EXPECT_FALSE(std::filesystem::exists(dir / "disk"));
}

TEST(vm_proxy_header, UnreadableFilesAreErrors) {
    const temp_dir_t dir;
    const std::string fifo = dir / "fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string folder = dir / "";
    const std::string shorter = write_file(dir / "short", golden_bytes().bytes().substr(0, 959));
    struct {
        std::string path;
        errnum_t number;
        std::string text;
    } const cases[] = {
        {folder, EISDIR, "vm_read_proxy_header(" + folder + "): read error Is a directory"},
        {fifo, ESPIPE, "vm_read_proxy_header(" + fifo + "): read error Illegal seek"},
        {shorter, 126, "vm_read_proxy_header(" + shorter + "): short read 959"},
    };
    for (const auto& c : cases) {
        std::unique_ptr<vm_proxy_header_t> out;
        const errdesc_t* e = vm_proxy_read_header(c.path, &out);
        ASSERT_EQ(number_of(e), c.number) << c.path;
        EXPECT_EQ(e->string, c.text);
        EXPECT_EQ(out, nullptr);
    }
}

TEST(vm_proxy_header, GarbageIsTurnedDownWithFileAndFault) {
    const temp_dir_t dir;
    struct {
        record_bytes_t bytes;
        const char* fault;
    } const cases[] = {
        {record_bytes_t(960), "wrong magic 0x0"},
        {golden_bytes().number(4, 4, 2), "unknown version 2"},
        {golden_bytes().number(8, 4, 6), "type 6"},
        {golden_bytes().fill(116, 513, 'p'), "text without end"},
        {golden_bytes().fill(629, 64, 'u'), "text without end"},
        {golden_bytes().fill(693, 257, 'h'), "text without end"},
        {golden_bytes().number(56, 8, ~0ULL), "negative size -1"},
        {golden_bytes().number(68, 8, 9'765'626), "9765626 blocks for 5000000000 bytes"},
    };
    for (const auto& c : cases) {
        const std::string path = write_file(dir / "header", c.bytes.bytes());
        std::unique_ptr<vm_proxy_header_t> out;
        const errdesc_t* e = vm_proxy_read_header_checked(path, &out);
        ASSERT_EQ(number_of(e), EINVAL) << c.fault;
        EXPECT_THAT(std::string(e->string), testing::StartsWith("Proxy header refused, "));
        EXPECT_THAT(std::string(e->string), testing::EndsWith(": " + path));
        EXPECT_THAT(std::string(e->string), testing::HasSubstr(c.fault));
        EXPECT_EQ(out, nullptr);
    }
    for (const vm_proxy_header_type_t type : {VM_PROXY_HEADER_VMDK_FLAT, VM_PROXY_HEADER_CFG})
        EXPECT_EQ(vm_proxy_header_check(vm_proxy_header_make(type), "header"), nullptr);
}

}  // namespace
}  // namespace mirador
