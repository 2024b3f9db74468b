// SPDX-License-Identifier: Apache-2.0
#include "tests/support/disk_lab.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "lib/cor_string.h"
#include "vmware/lib/vmdk/vmdk_open.h"

namespace mirador {
namespace {

constexpr std::uint64_t sector_bytes = 512;
constexpr std::size_t noise_bytes = std::size_t{1} << 20;
constexpr std::uint64_t longest_write = 300;  // sectors: more than two grains of qemu's disks
constexpr int raw_pieces = 24;

}  // namespace

void disk_lab_t::run(const std::string& command) const {
    const std::string log = path("command.log");
    const int status = std::system(("cd '" + dir_.path() + "' && " + command + " > '" + log + "' 2>&1").c_str());
    EXPECT_EQ(status, 0) << command << "\n" << read_file(log);
}

void disk_lab_t::write_noise(const std::string& name, const std::string& format, const pieces_t& pieces) {
    std::string noise(noise_bytes, '\0');
    std::ranges::generate(noise, [this] { return static_cast<char>(random_()); });
    write_file(path("noise"), noise);
    std::string command = "qemu-io -t unsafe -f " + format;
    for (const auto& [start, length] : pieces)
        command += cor_format(" -c 'write -s noise %ju %ju'", std::uintmax_t{start * sector_bytes},
                              std::uintmax_t{length * sector_bytes});
    run(command + " " + name);
}

void disk_lab_t::make_raw(const std::string& name, std::uint64_t sectors) {
    write_file(path(name), "");
    std::filesystem::resize_file(path(name), sectors * sector_bytes);
    pieces_t pieces;
    for (int i = 0; i < raw_pieces; ++i) {
        const std::uint64_t start = random(sectors);
        pieces.emplace_back(start, std::min(1 + random(2 * longest_write), sectors - start));
    }
    pieces.emplace_back(sectors - 1, 1);
    write_noise(name, "raw", pieces);
}

void disk_lab_t::make_base(const std::string& name, const std::string& subformat, const std::string& raw) const {
    run("qemu-img convert -t unsafe -f raw -O vmdk -o subformat=" + subformat + " " + raw + " " + name);
}

void disk_lab_t::make_delta(const std::string& name, const std::string& subformat, const std::string& parent) const {
    run("qemu-img create -q -f vmdk -o subformat=" + subformat + " -b " + parent + " -F vmdk " + name);
}

void disk_lab_t::scatter_writes(const std::string& name, std::uint64_t sectors, int count, const std::string& format) {
    pieces_t pieces;
    for (int i = 0; i < count; ++i) {
        const std::uint64_t start = random(sectors);
        const std::uint64_t length = std::min(1 + random(longest_write), sectors - start);
        pieces.emplace_back(start, length);
        if (random(2) == 0 && start + length < sectors)
            pieces.emplace_back(start + length, std::min(1 + random(longest_write), sectors - start - length));
    }
    pieces.emplace_back(sectors - 1, 1);
    write_noise(name, format, pieces);
}

void disk_lab_t::to_raw(const std::string& name, const std::string& raw) const {
    run("qemu-img convert -t unsafe -f vmdk -O raw " + name + " " + raw);
}

std::uint32_t disk_lab_t::content_id(const std::string& name) const {
    vmdkdesc_t disk;
    EXPECT_EQ(vmdk_open(path(name), &disk), nullptr);
    return disk.cid;
}

bool disk_lab_t::same(const std::string& a, const std::string& b) const {
    const std::string files = " '" + path(a) + "' '" + path(b) + "'";
    return std::filesystem::file_size(path(a)) == std::filesystem::file_size(path(b)) &&
           std::system(("qemu-img compare -q -f raw -F raw" + files).c_str()) == 0;
}

}  // namespace mirador
