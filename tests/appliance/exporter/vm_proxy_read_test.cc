// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/vm_proxy_read.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include "appliance/exporter/shadow_fixture.h"
#include "appliance/exporter/vm_proxy_api.h"
#include "appliance/exporter/vm_proxy_open.h"
#include "appliance/lib/cor_vdsk_header.h"

namespace mirador {
namespace {

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
        EXPECT_EQ(e == nullptr ? 0 : e->number, c.got == 0 ? EISDIR : 0) << c.offset;
        EXPECT_EQ(got, c.got) << c.offset;
        EXPECT_EQ(buf.substr(0, c.got), std::string(c.got, 'H'));
    }
    std::size_t got = 0;
    char byte = 0;
    EXPECT_EQ(vm_proxy_read(&byte, 1, 0, nullptr, &got)->number, ESTALE);
}

TEST_F(vm_proxy_read_test, ConfigurationFileIsFollowedByTheTimeOfItsOpen) {
    const std::string path = expose("vm.cfg", VM_PROXY_HEADER_CFG, make_file("vm.cfg", std::string(1000, 'c')));
    std::unique_ptr<fuse_fh_t> fh;
    ASSERT_EQ(vm_proxy_open(path, shadow_path(path), &fh), nullptr);
    std::string buf(4096, '?');
    std::size_t got = 0;
    EXPECT_EQ(vm_proxy_read(buf.data(), buf.size(), 0, fh.get(), &got), nullptr);
    ASSERT_EQ(got, 1000 + cfg_trailer_size);
    const std::string trailer = buf.substr(1000, cfg_trailer_size);
    EXPECT_EQ(trailer.rfind("access-time = ", 0), 0U);
    EXPECT_EQ(trailer.find_first_not_of(' ', trailer.find('\n') + 1), cfg_trailer_size - 1);
    EXPECT_EQ(trailer.back(), '\n');
    EXPECT_EQ(vm_proxy_release(path, std::move(fh)), nullptr);
}

TEST_F(vm_proxy_read_test, DiskShowsItsHeaderInTheFirstFreeSector) {
    std::string image(disk_size, '\0');
    image[510] = '\x55';
    image[511] = '\xaa';
    image.replace(1024, 512, 512, 'u');  // sector 2 is in use
    make_file("device", image);
    const std::string path = expose_disk("a-flat.vmdk");
    std::unique_ptr<fuse_fh_t> fh;
    ASSERT_EQ(vm_proxy_open(path, shadow_path(path), &fh), nullptr);
    std::string buf(4096, '?');
    std::size_t got = 0;
    EXPECT_EQ(vm_proxy_read(buf.data(), buf.size(), 0, fh.get(), &got), nullptr);
    EXPECT_EQ(buf.substr(0, 1536), image.substr(0, 1536));
    EXPECT_EQ(buf.substr(1536, 4), "KVDH");
    EXPECT_EQ(buf.substr(2044, 4), "KVDH");
    EXPECT_EQ(buf.substr(2048), image.substr(2048, 2048));
    EXPECT_EQ(fh->cookie->external_read_bytes, 4096U);
    EXPECT_EQ(vm_proxy_release(path, std::move(fh)), nullptr);
}

}  // namespace
}  // namespace mirador
