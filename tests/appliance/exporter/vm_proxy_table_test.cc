// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/vm_proxy_table.h"

#include <sys/xattr.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

#include "appliance/exporter/shadow_fixture.h"
#include "appliance/exporter/vm_proxy_api.h"
#include "appliance/exporter/vm_proxy_attr.h"
#include "appliance/exporter/vm_proxy_read.h"
#include "lib/clock.h"
#include "lib/error_hash.h"
#include "tests/lib/error_number.h"

namespace mirador {
namespace {

using fh_ptr = std::unique_ptr<fuse_fh_t>;

class vm_proxy_table : public shadow_fixture_t {
  protected:
    ~vm_proxy_table() override { get_reg_settings()->max_session = 50; }

    fh_ptr open(const std::string& path) {
        fh_ptr fh;
        const errdesc_t* e = vm_proxy_open(path, shadow_path(path), &fh);
        EXPECT_EQ(e == nullptr, fh != nullptr);
        return fh;
    }
    static void release(fh_ptr fh) {
        const std::string path = fh->path;
        EXPECT_EQ(vm_proxy_release(path, std::move(fh)), nullptr);
    }
    static std::vector<std::string> cached() {
        vm_proxy_open_list_t& table = vm_proxy_open_list();
        const mutex_lock_t lock(table.list_mutex);
        std::vector<std::string> paths;
        for (const cookie_ptr& cookie : table.list)
            paths.push_back(cookie->path);
        return paths;
    }
    static std::int64_t refs(const fuse_fh_t& fh) {
        vm_proxy_cookie_t& cookie = *fh.cookie;
        const mutex_lock_t lock(cookie.mutex);
        return cookie.ref;
    }
    static errnum_t saved_number(const std::string& path) { return number_of(error_hash_get(path)); }
};

TEST_F(vm_proxy_table, PathThatLeadsElsewhereIsOpenedAnew) {
    const std::string vmx = expose("a.vmx", VM_PROXY_HEADER_VMX, make_file("one.vmx", "one"));
    fh_ptr old = open(vmx);
    expose("a.vmx", VM_PROXY_HEADER_VMX, make_file("two.vmx", "second"));
    fh_ptr fresh = open(vmx);
    EXPECT_NE(old->cookie, fresh->cookie);
    EXPECT_EQ(lseek(fresh->fd.get(), 0, SEEK_END), 6);
    release(std::move(old));
    release(std::move(fresh));

    const std::string disk = expose_disk("a-flat.vmdk");
    release(open(disk));
    expose("a-flat.vmdk", VM_PROXY_HEADER_VMDK_FLAT, make_file("other", std::string(disk_size, 'o')));
    fh_ptr other = open(disk);
    EXPECT_EQ(fake_vdsk().set_ups, (std::vector<std::string>{fake_vdsk().device, root_ + "/other"}));
    expose_disk("a-flat.vmdk");
    EXPECT_EQ(open(disk), nullptr) << "the other disk is open";
    EXPECT_EQ(saved_number(disk), EBUSY);
    EXPECT_EQ(refs(*other), 1);
    release(std::move(other));
    release(open(disk));
    EXPECT_EQ(fake_vdsk().set_ups.size(), 3U);
    EXPECT_EQ(cached(), (std::vector<std::string>{vmx, disk}));
}

// A template is read without a snapshot. What is written to it once it is a VM must not come into a copy.
TEST_F(vm_proxy_table, TemplateThatBecomesAVmIsReadNoMoreAsOne) {
    const auto expose_as = [&](bool is_template) {
        return expose("a-flat.vmdk", VM_PROXY_HEADER_VMDK_FLAT, fake_vdsk().device, "hv1", is_template);
    };
    const auto read = [](const fh_ptr& fh) {
        std::array<char, 512> buf{};
        std::size_t got = 0;
        return number_of(vm_proxy_read(buf.data(), buf.size(), 0, fh.get(), &got));
    };
    const std::string disk = expose_as(true);
    fh_ptr early = open(disk);
    EXPECT_EQ(read(early), 0);
    expose_as(false);
    EXPECT_EQ(read(early), ESTALE);
    expose_as(true);
    EXPECT_EQ(read(early), ESTALE);
    EXPECT_EQ(open(disk), nullptr);
    EXPECT_EQ(saved_number(disk), EBUSY);
    expose_as(false);
    release(std::move(early));
    EXPECT_EQ(open(disk), nullptr) << "a snapshot is asked for, which nobody here makes";
    EXPECT_NE(saved_number(disk), EBUSY);
    expose_as(true);
    release(open(disk));
}

TEST_F(vm_proxy_table, OpenFileKeepsItsSizeUnderAnothersPath) {
    const std::string disk = expose_disk("a-flat.vmdk");
    fh_ptr fh = open(disk);
    expose("a-flat.vmdk", VM_PROXY_HEADER_VMX, make_file("small", "small"));
    struct stat st {};
    vm_proxy_fgetattr(*fh, disk, shadow_path(disk), &st);
    EXPECT_EQ(st.st_size, static_cast<off_t>(disk_size));
    release(std::move(fh));
}

TEST_F(vm_proxy_table, FullTableGivesUpItsLongestUnusedCookieAtOnce) {
    manual_clock_t clock(1000);
    get_reg_settings()->max_session = 2;
    const std::string a = expose_disk("a-flat.vmdk");
    const std::string b = expose_disk("b-flat.vmdk");
    const std::string c = expose_disk("c-flat.vmdk");
    fh_ptr open_a = open(a);
    fh_ptr open_b = open(b);
    EXPECT_EQ(open(c), nullptr);
    EXPECT_EQ(saved_number(c), EMFILE);

    release(std::move(open_b));
    clock.advance(1);
    release(std::move(open_a));
    fh_ptr open_c = open(c);
    ASSERT_NE(open_c, nullptr);
    EXPECT_EQ(cached(), (std::vector<std::string>{a, c}));
    EXPECT_EQ(fake_vdsk().alive, 2);
    release(std::move(open_c));
}

TEST_F(vm_proxy_table, IdlePassSparesWhatIsOpenOrWasUsedAMomentAgo) {
    manual_clock_t clock(1000);
    const std::string a = expose_disk("a-flat.vmdk");
    const std::string b = expose_disk("b-flat.vmdk");
    fh_ptr open_b = open(b);
    release(open(a));
    clock.advance(-500);
    EXPECT_EQ(vm_proxy_evict(false)->number, EMFILE) << "the clock was set back: it is idle from now on";
    clock.advance(evict_min_idle);
    EXPECT_EQ(vm_proxy_evict(false)->number, EMFILE);
    clock.advance(1);
    EXPECT_EQ(vm_proxy_evict(false), nullptr);
    EXPECT_EQ(cached(), std::vector<std::string>{b});
    EXPECT_EQ(vm_proxy_evict(true)->number, EMFILE);
    release(std::move(open_b));
    EXPECT_EQ(vm_proxy_evict(true), nullptr);
    EXPECT_EQ(vm_proxy_evict(true), nullptr) << "an empty table has nothing to give up";
}

TEST_F(vm_proxy_table, HypervisorFilterPassesOverOthersAndPlainFiles) {
    const std::string text = expose("a.vmx", VM_PROXY_HEADER_VMX, make_file("a.vmx", "x"), "hv1");
    const std::string other = expose_disk("b-flat.vmdk", "hv2");
    const std::string mine = expose_disk("c-flat.vmdk", "hv1");
    for (const std::string& path : {text, other, mine})
        release(open(path));
    EXPECT_EQ(vm_proxy_evict_intern(true, false, "hv1"), nullptr);
    EXPECT_EQ(vm_proxy_evict_intern(true, false, "hv1")->number, EMFILE);
    EXPECT_EQ(vm_proxy_evict_intern(true, false, "")->number, EMFILE) << "a hypervisor without a name is not any one";
    EXPECT_EQ(cached(), (std::vector<std::string>{text, other}));
}

TEST_F(vm_proxy_table, FailedOpenIsSavedForItsPathAndLeavesNothing) {
    const std::string disk = expose_disk("a-flat.vmdk");
    fake_vdsk().failures = {EIO};
    fh_ptr fh;
    EXPECT_EQ(number_of(vm_proxy_open(disk, shadow_path(disk), &fh)), ENOENT);
    EXPECT_EQ(saved_number(disk), EIO);
    EXPECT_TRUE(cached().empty());

    fake_vdsk().failures = {ENXIO};
    EXPECT_EQ(open(disk + "-cbt-losetup"), nullptr);
    EXPECT_EQ(saved_number(disk), ENXIO) << "the error attributes look under the export name";

    fake_vdsk().partitions_failure = EINVAL;
    EXPECT_EQ(open(disk), nullptr);
    EXPECT_EQ(saved_number(disk), EINVAL);
    EXPECT_EQ(fake_vdsk().alive, 0);

    make_file("shadow/garbage", std::string(960, 'g'));
    EXPECT_EQ(open("/garbage"), nullptr);
    EXPECT_EQ(saved_number("/garbage"), EINVAL);
    EXPECT_EQ(open("/missing"), nullptr);
    EXPECT_EQ(saved_number("/missing"), ENOENT);

    const std::string snapshotted = expose("s-flat.vmdk", VM_PROXY_HEADER_VMDK_FLAT, fake_vdsk().device, "hv1", false);
    EXPECT_EQ(open(snapshotted), nullptr);
    EXPECT_EQ(saved_number(snapshotted), ERR_NOT_AVAILABLE);
}

TEST_F(vm_proxy_table, HandleGoesOnWhenAnotherOpenOfItsCookieFails) {
    const std::string disk = expose_disk("a-flat.vmdk");
    fh_ptr survivor = open(disk);
    std::filesystem::rename(fake_vdsk().device, root_ + "/gone");
    EXPECT_EQ(open(disk), nullptr);
    EXPECT_TRUE(cached().empty());
    EXPECT_EQ(fake_vdsk().alive, 1) << "the mapping belongs to the handle as well";

    std::filesystem::rename(root_ + "/gone", fake_vdsk().device);
    fh_ptr fresh = open(disk);
    char byte = 0;
    std::size_t got = 0;
    EXPECT_EQ(vm_proxy_read(&byte, 1, 0, survivor.get(), &got), nullptr);
    EXPECT_EQ(byte, 'd');
    release(std::move(survivor));
    EXPECT_EQ(refs(*fresh), 1) << "the new cookie of the path is not the survivor's to count";
    EXPECT_EQ(fake_vdsk().alive, 1);
    release(std::move(fresh));
}

TEST_F(vm_proxy_table, TooManyOpenExtentFilesAreMendedByEviction) {
    const std::string path = expose_disk("z-flat.vmdk");
    const auto fill = [&](int count) {
        for (int i = 0; i < count; i++)
            release(open(expose_disk("d" + std::to_string(i) + "-flat.vmdk")));
        fake_vdsk().set_ups.clear();
    };

    fill(2);
    fake_vdsk().failures = {EMFILE, EMFILE};
    fh_ptr fh = open(path);
    EXPECT_NE(fh, nullptr);
    EXPECT_EQ(fake_vdsk().set_ups.size(), 3U);
    release(std::move(fh));
    vm_proxy_release_all();

    fill(4);
    fake_vdsk().failures = {EMFILE, EMFILE, EMFILE};
    EXPECT_EQ(open(path), nullptr);
    EXPECT_EQ(fake_vdsk().set_ups.size(), 3U);
    EXPECT_EQ(cached().size(), 1U) << "the third eviction is done though no fourth try follows";
    EXPECT_STREQ(
        error_hash_get(path)->string,
        ("Cannot open " + fake_vdsk().device + ": vm_proxy_open_vmdk_flat has reached the retry limit (3)").c_str());
    vm_proxy_release_all();

    fake_vdsk().set_ups.clear();
    fake_vdsk().failures = {EMFILE};
    EXPECT_EQ(open(path), nullptr);
    EXPECT_EQ(fake_vdsk().set_ups.size(), 1U) << "nothing to evict: no retry";
    EXPECT_EQ(saved_number(path), EMFILE);
}

TEST_F(vm_proxy_table, WaitForTheLastReferenceToAnExtentFile) {
    const std::string extent = make_file("extent", "x");
    struct {
        const char* value;
        std::time_t seconds;
    } const cases[] = {{"0", 0}, {"2", 60}, {"none of a number", 0}, {nullptr, 0}};
    for (const auto& c : cases) {
        manual_clock_t clock(1000);
        if (c.value == nullptr)
            ASSERT_EQ(removexattr(extent.c_str(), "user.vmdk_ref"), 0);
        else
            ASSERT_EQ(setxattr(extent.c_str(), "user.vmdk_ref", c.value, std::strlen(c.value), 0), 0);
        check_n_wait_for_zero_vmdk_ref(extent);
        EXPECT_EQ(clock.slept(), c.seconds) << (c.value == nullptr ? "(none)" : c.value);
    }
}

// Opens, releases, reads, attribute queries and evictions of more disks than the table holds, all at once.
TEST_F(vm_proxy_table, ManyThreadsAtOnce) {
    constexpr int disks = 6;
    constexpr int rounds = 150;
    get_reg_settings()->max_session = 4;
    std::vector<std::string> paths;
    for (int i = 0; i < disks; i++)
        paths.push_back(expose_disk("d" + std::to_string(i) + "-flat.vmdk"));

    std::atomic<int> served = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; t++) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < rounds; i++) {
                const std::string& path = paths[static_cast<std::size_t>((i + t) % disks)];
                fh_ptr fh;
                if (vm_proxy_open(path, shadow_path(path), &fh) != nullptr)
                    continue;
                std::vector<char> buf(4096);
                std::size_t got = 0;
                EXPECT_EQ(vm_proxy_read(buf.data(), buf.size(), 0, fh.get(), &got), nullptr);
                EXPECT_EQ(got, buf.size());
                EXPECT_EQ(vm_proxy_release(path, std::move(fh)), nullptr);
                served++;
            }
        });
    }
    threads.emplace_back([&] {
        for (int i = 0; i < rounds; i++) {
            const std::string& path = paths[static_cast<std::size_t>(i % disks)];
            std::size_t size = 0;
            (void)vm_proxy_getxattr(path, shadow_path(path), "devicemapper_path", nullptr, &size);
            (void)vm_proxy_evict(true);
        }
    });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_GT(served, 0);
    EXPECT_LE(cached().size(), 4U);
}

}  // namespace
}  // namespace mirador
