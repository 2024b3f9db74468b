// SPDX-License-Identifier: Apache-2.0
#include "tests/support/changed_images.h"

#include <algorithm>

#include "lib/cor_assert.h"

namespace mirador {
namespace {

constexpr std::size_t sector = 512;
constexpr std::size_t longest = 8;  // sectors that change together, and about that many that do not

std::string random_bytes(std::size_t size, std::mt19937& random) {
    std::string bytes(size, '\0');
    if (random() % 8 == 0)
        return bytes;
    for (char& byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}

}  // namespace

changed_images_t random_changed_images(std::size_t max_sectors, std::mt19937& random) {
    changed_images_t images;
    const std::size_t before = random() % max_sectors;
    const std::size_t now = before + (random() % 2) * (random() % (max_sectors / 2));
    std::string data;
    images.before = random_bytes(before * sector, random);
    images.now = images.before;
    images.now.resize(now * sector);
    for (std::size_t at = random() % longest; at < now; at += random() % longest) {
        const std::size_t length = std::min<std::size_t>(random() % longest + 1, now - at);
        const std::string bytes = random_bytes(length * sector, random);
        images.list.push_back({0, static_cast<std::int64_t>(at * sector), static_cast<std::int64_t>(length * sector)});
        images.now.replace(at * sector, bytes.size(), bytes);
        data += bytes;
        at += length;
    }
    cor_assert(!build_corcbt_header(images.list, "52 de/1", "disk-flat.vmdk",
                                    static_cast<std::int64_t>(images.now.size()), &images.header, &images.corcbt));
    images.corcbt += data;
    return images;
}

}  // namespace mirador
