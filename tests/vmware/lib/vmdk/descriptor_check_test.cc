// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmdk/descriptor_check.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "lib/cor_string.h"
#include "tests/lib/error_number.h"
#include "tests/lib/temp_dir.h"
#include "vmware/lib/vmdk/vmdk_parse.h"

namespace mirador {
namespace {

using testing::HasSubstr;
using namespace std::string_literals;

const std::string good = "version=1\nRW 8 FLAT \"a-flat.vmdk\" 0\n";

std::string repeated(std::size_t times, const std::string& line) {
    std::string text;
    for (std::size_t i = 0; i < times; ++i)
        text += line;
    return text;
}

constexpr const char* unparsable = "cannot parse the input file: Resource temporarily unavailable";

// The error's text, or "accepted". A refusal must carry EINVAL and the file, a text that is none EAGAIN.
std::string verdict(const std::string& path, descriptor_role_t role = descriptor_role_t::head) {
    vmdkdesc_t desc;
    const errdesc_t* e = vmdk_check_descriptor(path, role, &desc);
    if (!e)
        return "accepted";
    if (e->string == std::string(unparsable)) {
        EXPECT_EQ(e->number, EAGAIN);
        return e->string;
    }
    EXPECT_EQ(e->number, EINVAL) << e->string;
    EXPECT_THAT(e->string, HasSubstr(path));
    return e->string;
}

TEST(descriptor_check, TextsThatAreTurnedDown) {
    const std::string kilobyte(1024, 'n');
    const struct {
        std::string text;
        const char* fault;
    } cases[] = {
        {good, "accepted"},
        {"RW 8 FLAT \"" + std::string(1023, 'n') + "\"\n", "accepted"},
        {"RW 18014398509481983 FLAT \"a\"\n", "accepted"},
        {repeated(1024, "RW 8 FLAT \"a\"\n"), "accepted"},
        {"", unparsable},
        {"version=1", unparsable},
        {std::string(5000, '\xff'), unparsable},
        {good + "RW 8 FL", unparsable},  // half written
        {std::string(5 << 20, 'a'), "text too long"},
        {"version=1\n", "no extents"},
        {"version=1\r\nRW 8 FLAT \"a\"\r\n", "1 extent lines cannot be read"},
        {good + "RW 8 ZERO\n", "1 extent lines cannot be read"},
        {good + "RW 8 FLAT \"123\"\nrdonly 8 FLAT \"vmfs\" 0\n", "2 extent lines cannot be read"},
        {repeated(1025, "RW 8 FLAT \"a\"\n"), "more than 1024 extents"},
        {"RW 8 FLAT \"" + kilobyte + "\"\n", "a file name of more than 1023 characters"},
        {good + "parentFileNameHint=\"" + kilobyte + kilobyte + "\"\n", "a file name of more than 1023 characters"},
        {"RW 8 ZERO \"a\"\n", "extent 0 is of a type that cannot be mapped"},
        {good + "RW 8 VMFSRAW \"a\"\n", "extent 1 is of a type that cannot be mapped"},
        {"RW 0 FLAT \"a\"\n", "extent 0 has no size"},
        {"RW 18014398509481984 FLAT \"a\"\n", "extent 0 makes the disk too large"},
        {"RW 18014398509481983 FLAT \"a\"\nRW 1 FLAT \"b\"\n", "extent 1 makes the disk too large"},
        {"RW 8 FLAT \"a\" 99999999999\n", "extent 0 begins too far inside its file"},
        {"RW 18014398509481982 FLAT \"a\" 1\n", "accepted"},
        {"RW 18014398509481983 FLAT \"a\" 1\n", "extent 0 begins too far inside its file"},
    };
    const temp_dir_t temp;
    for (const auto& c : cases) {
        const std::string path = write_file(temp / "x.vmdk", c.text);
        EXPECT_THAT(verdict(path), HasSubstr(c.fault)) << c.text.substr(0, 80);
    }
}

TEST(descriptor_check, AParentIsNoRawDevice) {
    const temp_dir_t temp;
    EXPECT_EQ(verdict(write_file(temp / "x", good), descriptor_role_t::ancestor), "accepted");
    EXPECT_THAT(verdict(write_file(temp / "x", good + "RW 8 VMFSRDM \"r\"\n"), descriptor_role_t::ancestor),
                HasSubstr("extent 1 of a parent disk is a raw device mapping"));
}

TEST(descriptor_check, OnlyRegularFilesAreRead) {
    const temp_dir_t temp;
    ASSERT_EQ(mkfifo((temp / "fifo").c_str(), 0600), 0);
    std::filesystem::create_symlink(write_file(temp / "real", good), temp / "link");
    std::filesystem::create_symlink("fifo", temp / "link-to-fifo");
    for (const std::string& path : {temp / "fifo", temp / "link-to-fifo", temp.path(), "/dev/zero"s})
        EXPECT_THAT(verdict(path), HasSubstr("not a regular file"));
    EXPECT_EQ(verdict(temp / "link"), "accepted");

    vmdkdesc_t desc;
    EXPECT_EQ(number_of(vmdk_check_descriptor(temp / "absent", descriptor_role_t::head, &desc)), ENOENT);
}

TEST(descriptor_check, TextInsideALargeSparseExtent) {
    const temp_dir_t temp;
    std::string bytes = "KDMV\x01\0\0\0"s;
    bytes.resize(sector_size);
    const std::string path = write_file(temp / "x.vmdk", bytes + good + '\0');
    std::filesystem::resize_file(path, std::uintmax_t{1} << 40);
    EXPECT_EQ(verdict(path), "accepted");

    // A damaged text of its own in front would add its extents.
    bytes = "RW 8 FLAT \"a\"\nx";
    bytes.resize(sector_size);
    EXPECT_THAT(verdict(write_file(temp / "x.vmdk", bytes + good)), HasSubstr("two texts with extents"));
}

TEST(descriptor_check, PathsThatWouldNotFit) {
    const temp_dir_t temp;
    std::string deep = temp.path();
    const std::string component(250, 'd');
    while (deep.size() + component.size() < 3500)
        deep += "/" + component;
    std::filesystem::create_directories(deep);
    const std::string path = deep + "/x.vmdk";
    EXPECT_EQ(verdict(write_file(path, good)), "accepted");

    // Fits here, but not below a longer mount root.
    const std::string too_long(path_size - deep.size() - 10, 'n');
    vmdkdesc_t desc;
    for (const std::string& text :
         {"RW 8 FLAT \"" + too_long + "\"\n", good + "parentFileNameHint=\"" + too_long + "\"\n"}) {
        const errdesc_t* e = vmdk_check_descriptor(write_file(path, text), descriptor_role_t::head, &desc);
        ASSERT_NE(e, nullptr);
        // The path is cut from the text, the fault is not.
        EXPECT_THAT(e->string, HasSubstr("the path of an extent or parent is too long"));
    }
    EXPECT_EQ(verdict(write_file(path, "RW 8 FLAT \"/" + too_long + "\"\n")), "accepted");
}

}  // namespace
}  // namespace mirador
