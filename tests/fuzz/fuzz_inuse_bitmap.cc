// SPDX-License-Identifier: Apache-2.0
// Any bitmap for a device, and any request. Input: the device's size in sectors and how much of the bitmap is cut off
// after the opening (a byte each), the request's offset and size (four bytes and three, little-endian), the bitmap.
// A bitmap that is too short is not taken; of any other, each read gives what the bitmap says, or fails because of the
// cut.
#include <cstring>

#include "appliance/lib/cordev_io.h"
#include "lib/tool_paths.h"
#include "tests/fuzz/memory_file.h"
#include "tests/support/inuse_model.h"

using namespace mirador;

namespace {

constexpr std::size_t sector = inuse_model_t::sector;
constexpr std::size_t head_size = 9;
constexpr char untouched = '\x7f';

struct lab_t {
    lab_t() {
        cor_assert(std::freopen("/dev/null", "we", stdout) != nullptr);  // a reader that is closed logs a line
        // Both files have a path of their own below /proc; the bitmap's name must be the device's.
        std::string directory = "/tmp/fuzz_inuse_bitmap.XXXXXX";
        cor_assert(mkdtemp(directory.data()) != nullptr);
        tool_paths().inuse_bitmap_dir = directory;
        link_ = directory + "/" + std::to_string(device.fd());
        cor_assert(symlink(bitmap.path().c_str(), link_.c_str()) == 0);
    }
    ~lab_t() {
        unlink(link_.c_str());
        rmdir(tool_paths().inuse_bitmap_dir.c_str());
    }

    memory_file_t device;
    memory_file_t bitmap;

  private:
    std::string link_;
};

std::size_t number(const std::uint8_t* data, std::size_t size) {
    std::size_t value = 0;
    for (std::size_t i = size; i-- > 0;)
        value = value << 8 | data[i];
    return value;
}

// No byte of it passes for the fill pattern; a sector of the device is a piece of it, which begins at its number.
std::string make_pattern() {
    std::string pattern;
    for (std::size_t i = 0; i < sector + 256; i++)
        pattern.push_back(static_cast<char>(i * 31 % 251 + 1));
    return pattern;
}

const std::uint8_t* bytes(const std::string& text) {
    return reinterpret_cast<const std::uint8_t*>(text.data());
}

void compare(cor_dev_desc_t& pdev, const inuse_model_t& model, std::size_t bitmap_left, off_t offset,
             std::size_t size) {
    std::string buf(size, untouched);
    std::size_t read = 0;
    std::size_t skipped = 0;
    const errdesc_t* e = optimize_byte_read(pdev, buf.data(), size, offset, &read, &skipped);
    const auto at = static_cast<std::size_t>(offset);
    const std::string expected = model.read(at, size);
    if (!expected.empty() && (at + expected.size() - 1) / sector / 8 >= bitmap_left) {
        cor_assert(e != nullptr && e->number == EIO);
        return;
    }
    cor_assert(e == nullptr);
    cor_assert(cor_dev_room(pdev, size, offset) == expected.size());
    cor_assert(buf == expected + std::string(size - expected.size(), untouched));
    cor_assert(read == model.touched(at, size, true) && skipped == model.touched(at, size, false));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static lab_t lab;
    if (size < head_size)
        return 0;
    static const std::string pattern = make_pattern();
    inuse_model_t model;
    model.bitmap.assign(data + head_size, data + size);
    for (std::size_t at = 0; at < data[0]; at++)
        model.device.append(pattern, at, sector);
    lab.device.fill(bytes(model.device), model.device.size());
    lab.bitmap.fill(bytes(model.bitmap), model.bitmap.size());
    const cor_dev_ptr pdev = cor_dev_open(lab.device.path(), "");
    cor_assert((pdev != nullptr) == (data[0] > 0 && model.bitmap.size() * 8 >= data[0]));
    if (pdev == nullptr)
        return 0;
    const std::size_t left = model.bitmap.size() - std::min<std::size_t>(data[1], model.bitmap.size());
    lab.bitmap.fill(bytes(model.bitmap), left);
    const std::size_t count = number(data + 6, 3) % (1 << 16) + 1;
    compare(*pdev, model, left, static_cast<off_t>(number(data + 2, 4)), count);
    compare(*pdev, model, left, static_cast<off_t>(number(data + 2, 2)), count % (40 * sector) + 1);
    return 0;
}
