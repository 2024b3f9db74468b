// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/vm_proxy_read.h"

#include <fcntl.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>

#include "appliance/exporter/shadow_fixture.h"
#include "appliance/exporter/vm_proxy_api.h"
#include "appliance/exporter/vm_proxy_open.h"
#include "appliance/lib/cor_vdsk_header.h"
#include "lib/tool_paths.h"
#include "tests/lib/error_number.h"
#include "tests/support/inuse_model.h"

namespace mirador {
namespace {

using testing::HasSubstr;

class vm_proxy_read_test : public shadow_fixture_t {
  protected:
    // A handle on a file of `content` with an overlay of 'H' at `at`, as an open would make it.
    std::unique_ptr<fuse_fh_t> handle(const std::string& content, std::int64_t at, std::size_t length) {
        auto fh = std::make_unique<fuse_fh_t>();
        fh->fd.reset(open(make_file("source", content).c_str(), O_RDONLY | O_CLOEXEC));
        fh->buffered_data.offset = at;
        fh->buffered_data.buffer.assign(length, 'H');
        fh->cookie = std::make_shared<vm_proxy_cookie_t>();
        return fh;
    }
};

TEST_F(vm_proxy_read_test, OverlayReplacesItsRangeForEveryOffsetAndSize) {
    constexpr std::size_t length = 40;
    std::string content;
    for (std::size_t i = 0; i < length; i++)
        content.push_back(static_cast<char>('a' + i % 26));
    struct {
        std::int64_t at;
        std::size_t length;
    } const overlays[] = {{8, 16}, {0, 5}, {30, 10}, {40, 7}, {33, 12}, {-1, 0}};
    for (const auto& overlay : overlays) {
        const auto fh = handle(content, overlay.at, overlay.length);
        std::string expected = content;
        if (overlay.length > 0) {
            const auto at = static_cast<std::size_t>(overlay.at);
            expected.resize(std::max(expected.size(), at + overlay.length));
            expected.replace(at, overlay.length, overlay.length, 'H');
        }
        for (std::size_t offset = 0; offset < 60; offset++) {
            for (std::size_t size = 1; size < 60; size++) {
                std::string buf(size, '?');
                std::size_t got = 99;
                ASSERT_EQ(vm_proxy_read(buf.data(), size, static_cast<off_t>(offset), fh.get(), &got), nullptr);
                const std::string wanted = offset < expected.size() ? expected.substr(offset, size) : "";
                ASSERT_EQ(buf.substr(0, got), wanted) << overlay.at << " " << offset << " " << size;
                ASSERT_EQ(buf.substr(got), std::string(size - got, '?')) << "nothing behind the data is touched";
            }
        }
    }
}

TEST_F(vm_proxy_read_test, FailureOfTheSourceShowsUnlessTheOverlayCoversTheStart) {
    const auto fh = handle("", 512, 512);
    fh->fd.reset(open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));  // every read of it fails
    fh->extended_error_path = root_;
    struct {
        off_t offset;
        std::size_t size;
        std::size_t got;  // 0: the failure shows
    } const cases[] = {{0, 512, 0}, {0, 4096, 0}, {512, 4096, 512}, {700, 100, 100}, {1023, 2, 1}, {1024, 1, 0}};
    for (const auto& c : cases) {
        std::string buf(c.size, '?');
        std::size_t got = 0;
        const errdesc_t* e = vm_proxy_read(buf.data(), c.size, c.offset, fh.get(), &got);
        EXPECT_EQ(number_of(e), c.got == 0 ? EISDIR : 0) << c.offset;
        EXPECT_EQ(got, c.got) << c.offset;
        EXPECT_EQ(buf.substr(0, c.got), std::string(c.got, 'H'));
        // Who takes what is short for the file's end must not be told that the disk ends there.
        e = vm_proxy_read_whole(buf.data(), c.size, c.offset, fh.get(), &got);
        EXPECT_EQ(number_of(e), c.got < c.size ? EISDIR : 0) << c.offset;
    }
    std::size_t got = 0;
    char byte = 0;
    EXPECT_EQ(vm_proxy_read(&byte, 1, 0, nullptr, &got)->number, ESTALE);
}

// A mapping that cannot read a piece of itself may give what comes before it.
TEST_F(vm_proxy_read_test, DeviceThatEndsEarlyIsAnError) {
    const std::string disk = expose_disk("a-flat.vmdk");
    std::unique_ptr<fuse_fh_t> fh;
    ASSERT_EQ(vm_proxy_open(disk, shadow_path(disk), &fh), nullptr);
    std::string buf(8192, '?');
    std::size_t got = 0;
    const auto end = static_cast<off_t>(disk_size);
    EXPECT_EQ(number_of(vm_proxy_read(buf.data(), buf.size(), end - 4096, fh.get(), &got)), 0);
    EXPECT_EQ(got, 4096U);
    std::filesystem::resize_file(fake_vdsk().device, disk_size - 6144);
    EXPECT_EQ(number_of(vm_proxy_read(buf.data(), buf.size(), end - 8192, fh.get(), &got)), EIO);
    EXPECT_EQ(number_of(vm_proxy_read(buf.data(), buf.size(), end - 4096, fh.get(), &got)), EIO);
    EXPECT_EQ(number_of(vm_proxy_read(buf.data(), buf.size(), end, fh.get(), &got)), 0);
    EXPECT_EQ(got, 0U);
    EXPECT_EQ(vm_proxy_release(disk, std::move(fh)), nullptr);
}

// A disk of which every third sector is in use, with the bitmap that says so.
class smart_read_test : public vm_proxy_read_test {
  protected:
    smart_read_test() {
        tool_paths().inuse_bitmap_dir = root_ + "/inuse";
        model_.device.assign(disk_size, 'd');
        model_.device.replace(0, 512, 512, '\0');
        model_.device.replace(510, 2, "\x55\xaa");
        model_.device.replace(2 * 512, 512, 512, '\0');  // where the disk's header goes
        make_file("device", model_.device);
        model_.bitmap.assign(disk_size / 512 / 8, '\0');
        for (std::size_t i = 0; i < disk_size / 512; i += 3)
            model_.set(i, true);
    }
    ~smart_read_test() override {
        tool_paths() = tool_paths_t();
        get_reg_settings()->smartread_optimize = true;
    }

    void publish_bitmap() const { make_file("inuse/device", model_.bitmap); }

    std::unique_ptr<fuse_fh_t> open_disk() {
        path_ = expose_disk("a-flat.vmdk");
        std::unique_ptr<fuse_fh_t> fh;
        EXPECT_EQ(vm_proxy_open(path_, shadow_path(path_), &fh), nullptr);
        return fh;
    }

    static std::string read(const fuse_fh_t& fh, std::size_t size, std::size_t offset) {
        std::string buf(size, '?');
        std::size_t got = 0;
        EXPECT_EQ(vm_proxy_read(buf.data(), size, static_cast<off_t>(offset), &fh, &got), nullptr);
        EXPECT_EQ(buf.substr(got), std::string(size - got, '?'));
        buf.resize(got);
        return buf;
    }

    std::string path_;
    inuse_model_t model_;
};

TEST_F(smart_read_test, DiskIsReadWithoutWhatItsGuestDoesNotUse) {
    publish_bitmap();
    auto fh = open_disk();
    ASSERT_TRUE(fh->optimize);
    const std::string start = read(*fh, 4096, 0);
    EXPECT_EQ(start.substr(0, 1024), model_.read(0, 1024));
    EXPECT_EQ(start.substr(1024, 4), "KVDH") << "the header lies over a sector that is not in use";
    EXPECT_EQ(start.substr(1536), model_.read(1536, 4096 - 1536));
    // More sectors are touched than bytes asked for; what is delivered is what was asked for, to the disk's end.
    EXPECT_EQ(read(*fh, 1000, 100000), model_.read(100000, 1000));
    EXPECT_EQ(read(*fh, 4096, disk_size - 700), model_.read(disk_size - 700, 700));
    EXPECT_EQ(read(*fh, 512, disk_size), "");
    EXPECT_EQ(read(*fh, 0, 0), "");
    EXPECT_EQ(fh->cookie->external_read_bytes, 4096U + 1000U + 700U);
    get_reg_settings()->smartread_optimize = false;
    EXPECT_EQ(read(*fh, 4096, 8192), model_.device.substr(8192, 4096)) << "the setting holds from read to read";
    EXPECT_EQ(vm_proxy_release(path_, std::move(fh)), nullptr);
}

TEST_F(smart_read_test, HandleKeepsItsReaderWhenItsCookieIsGone) {
    publish_bitmap();
    auto fh = open_disk();
    testing::internal::CaptureStdout();
    vm_proxy_release_all();
    EXPECT_EQ(read(*fh, 4096, 8192), model_.read(8192, 4096));
    EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::Not(HasSubstr("PDEV_STATS")));
    testing::internal::CaptureStdout();
    EXPECT_EQ(vm_proxy_release(path_, std::move(fh)), nullptr);
    EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("PDEV_STATS for /device: 1 invocations"));
}

}  // namespace
}  // namespace mirador
