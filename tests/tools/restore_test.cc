// SPDX-License-Identifier: Apache-2.0
#include "tools/mirador-restore/restore.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <random>
#include <set>

#include "appliance/lib/cor_vdsk_header.h"
#include "appliance/lib/mbr.h"
#include "lib/file_io.h"
#include "tests/lib/in_child.h"
#include "tests/lib/temp_dir.h"
#include "tests/support/changed_images.h"
#include "tests/support/record_bytes.h"

namespace mirador {
namespace {

using testing::HasSubstr;

constexpr std::int64_t mebibyte = 1 << 20;

struct result_t {
    int status = -1;
    std::string out;
    std::string err;
};

result_t restore(const std::vector<std::string>& args) {
    result_t result;
    result.err = printed([&](std::FILE* err) {
        result.out = printed([&](std::FILE* out) { result.status = restore_main(args, out, err); });
    });
    return result;
}

class restore_image : public testing::Test {
  protected:
    void write_inputs(const changed_images_t& images) {
        for (const std::string& path : {flat_, corcbt_, image_})
            unlink(path.c_str());  // overwriting one would wait for the disk
        write_file(flat_, images.before);
        write_file(corcbt_, images.corcbt);
    }
    changed_images_t some_images() {
        changed_images_t images;
        do
            images = random_changed_images(64, random_);
        while (images.list.empty() || images.before.empty());
        return images;
    }
    std::set<std::string> names() const {
        std::set<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(dir_.path()))
            names.insert(entry.path().filename());
        return names;
    }

    std::mt19937 random_{3};
    temp_dir_t dir_;
    const std::string flat_ = dir_ / "old";
    const std::string corcbt_ = dir_ / "changes";
    const std::string image_ = dir_ / "new";
};

TEST_F(restore_image, IsTheDiskOfNow) {
    for (int round = 0; round < 40; ++round) {
        const changed_images_t images = random_changed_images(128, random_);
        write_inputs(images);
        const result_t result = restore({"-o", image_, flat_, corcbt_});
        ASSERT_EQ(result.status, 0) << result.err;
        ASSERT_EQ(read_file(image_), images.now);
        ASSERT_EQ(read_file(flat_), images.before);
    }
    EXPECT_EQ(names(), (std::set<std::string>{"changes", "new", "old"}));
}

// The kernel does not copy from one kind of file system to another.
TEST_F(restore_image, InputsMayLieElsewhere) {
    std::string elsewhere = "/dev/shm/mirador.XXXXXX";
    if (mkdtemp(elsewhere.data()) == nullptr)
        GTEST_SKIP() << "no /dev/shm";
    for (int round = 0; round < 3; ++round) {
        const changed_images_t images = random_changed_images(4096, random_);
        unlink(image_.c_str());
        write_file(elsewhere + "/old", images.before);
        write_file(elsewhere + "/changes", images.corcbt);
        const result_t result = restore({elsewhere + "/old", elsewhere + "/changes", "-o", image_});
        EXPECT_EQ(result.status, 0) << result.err;
        EXPECT_EQ(read_file(image_) == images.now, true);
    }
    std::filesystem::remove_all(elsewhere);
}

TEST_F(restore_image, HolesStayHoles) {
    constexpr std::int64_t size = 4096 * mebibyte;
    cbt_file_header_t header;
    std::string bytes;
    ASSERT_EQ(build_corcbt_header({{0, 0, 1024 * mebibyte}, {0, size - 512, 512}}, "id", "disk", size, &header, &bytes),
              nullptr);
    write_file(corcbt_, bytes);
    write_file(flat_, std::string(4096, 'x'));
    ASSERT_EQ(truncate(corcbt_.c_str(), header.corcbt_file_size), 0);
    ASSERT_EQ(truncate(flat_.c_str(), size / 2), 0);
    {
        const unique_fd fd(open(flat_.c_str(), O_WRONLY | O_CLOEXEC));
        std::size_t done = 0;
        ASSERT_EQ(cor_pwrite(fd.get(), "here", 4, 1500 * mebibyte, &done), nullptr);
    }
    const result_t result = restore({flat_, corcbt_, "-o", image_});
    ASSERT_EQ(result.status, 0) << result.err;
    struct stat st {};
    ASSERT_EQ(stat(image_.c_str(), &st), 0);
    EXPECT_EQ(st.st_size, size);
    EXPECT_LT(st.st_blocks * 512, 2 * mebibyte);
    const unique_fd fd(open(image_.c_str(), O_RDONLY | O_CLOEXEC));
    char text[5] = {};
    ASSERT_EQ(pread(fd.get(), text, 4, 1500 * mebibyte), 4);
    EXPECT_STREQ(text, "here");
    ASSERT_EQ(pread(fd.get(), text, 4, 0), 4);
    EXPECT_STREQ(text, "");  // what was there before has changed to nothing
}

TEST_F(restore_image, FailuresLeaveWhatWasThere) {
    const changed_images_t images = some_images();
    write_inputs(images);
    const std::string there = write_file(dir_ / "there", "precious");
    const std::string cut = write_file(dir_ / "cut", images.corcbt.substr(0, images.corcbt.size() - 512));
    const std::string large = write_file(dir_ / "large", std::string(images.now.size() + 512, 'x'));
    const std::string odd = write_file(dir_ / "odd", std::string(100, 'x'));
    const std::string fifo = dir_ / "fifo";
    const std::string absent = dir_ / "absent";
    const std::string symlink = dir_ / "symlink";
    const std::string twin = dir_ / "twin";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    ASSERT_EQ(::symlink(there.c_str(), symlink.c_str()), 0);
    ASSERT_EQ(link(flat_.c_str(), twin.c_str()), 0);
    const struct {
        std::vector<std::string> args;
        const char* fault;
    } cases[] = {
        {{absent, corcbt_, "-o", image_}, "absent: No such file"},
        {{flat_, absent, "-o", image_}, "absent: No such file"},
        {{fifo, corcbt_, "-o", image_}, "not a regular file: "},
        {{flat_, flat_, "-o", image_}, "old: invalid corcbt header magic number"},
        {{flat_, cut, "-o", image_}, "cut: "},
        {{large, corcbt_, "-o", image_}, "large has "},
        {{odd, corcbt_, "-o", image_}, "odd has "},
        {{flat_, corcbt_, "-o", there}, "there: File exists"},
        {{flat_, corcbt_, "-o", symlink}, "symlink: File exists"},
        {{flat_, corcbt_, "-o", symlink, "--force"}, "not a regular file: "},
        {{flat_, corcbt_, "-o", dir_.path(), "--force"}, "not a regular file: "},
        {{flat_, corcbt_, "-o", flat_, "--force"}, "itself"},
        {{flat_, corcbt_, "-o", twin, "--force"}, "itself"},
        {{flat_, corcbt_, "-o", dir_ / "no/new"}, "no/new: No such file"},
    };
    const std::set<std::string> before = names();
    for (const auto& c : cases) {
        const result_t result = restore(c.args);
        EXPECT_EQ(result.status, 1) << c.fault;
        EXPECT_THAT(result.err, HasSubstr(c.fault));
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
        EXPECT_EQ(names(), before);
        EXPECT_EQ(read_file(there), "precious");
        EXPECT_EQ(read_file(flat_), images.before);
    }
    EXPECT_EQ(restore({flat_, corcbt_, "-o", there, "--force"}).status, 0);
    EXPECT_EQ(read_file(there), images.now);
}

// A disk that has grown since its copy was made looks like a copy that was cut, but for the header in it.
TEST_F(restore_image, ACutCopyIsNotTakenForASmallerDisk) {
    constexpr std::size_t size = 1 << 20;
    constexpr std::size_t sector = 512;
    const std::unique_ptr<cor_vdsk_header_t> vdsk = new_cor_vdsk_header();
    vdsk->size = size / sector;
    mbr_t mbr{};
    mbr.mbr_signature = mbr_t::signature_value;
    std::string copy(size, 'x');
    copy.replace(0, sizeof mbr, reinterpret_cast<const char*>(&mbr), sizeof mbr);
    copy.replace(2 * sector, sizeof *vdsk, reinterpret_cast<const char*>(vdsk.get()), sizeof *vdsk);
    cbt_file_header_t header;
    std::string bytes;
    ASSERT_EQ(build_corcbt_header({{0, size, 512}}, "id", "disk", 2 * size, &header, &bytes), nullptr);
    write_file(corcbt_, bytes + std::string(512, 'n'));
    write_file(flat_, copy.substr(0, size - 512));
    const result_t result = restore({flat_, corcbt_, "-o", image_});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, HasSubstr("old has 1048064 bytes, its header tells of 1048576"));
    write_file(flat_, copy);
    EXPECT_EQ(restore({flat_, corcbt_, "-o", image_}).status, 0);
    EXPECT_EQ(read_file(image_), copy + std::string(512, 'n') + std::string(size - 512, '\0'));
}

// As with a disk that is too small.
TEST_F(restore_image, WriteErrorLeavesNothing) {
    const changed_images_t images = some_images();
    write_inputs(images);
    const std::set<std::string> before = names();
    const int status = in_child([&] {
        const rlimit limits{images.now.size() - 512, images.now.size() - 512};
        std::signal(SIGXFSZ, SIG_IGN);
        setrlimit(RLIMIT_FSIZE, &limits);
        return restore({flat_, corcbt_, "-o", image_}).err.find("new: File too large") == std::string::npos;
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(names(), before);
}

}  // namespace
}  // namespace mirador
