// SPDX-License-Identifier: Apache-2.0
#include "lib/digest.h"

#include <openssl/evp.h>

#include <cstdint>
#include <cstring>
#include <string_view>

#include "lib/cor_assert.h"
#include "lib/log.h"

namespace mirador {

std::atomic<bool> _verbose_debug_enabled = false;

std::string md5_to_str(const md5_digest_t& digest) {
    constexpr std::string_view digits = "0123456789abcdef";
    std::string text;
    for (const std::uint8_t byte : digest) {
        text.push_back(digits[byte >> 4]);
        text.push_back(digits[byte & 0xf]);
    }
    return text;
}

bool buf_has_non_zero_content(const void* buf, std::size_t len) {
    const char* bytes = static_cast<const char*>(buf);
    // All are zero when the first is and each equals the one before it.
    return len > 0 && (bytes[0] != 0 || std::memcmp(bytes, bytes + 1, len - 1) != 0);
}

void DEBUG_digest_buf(const char* func, const char* path, off_t offset, ssize_t size, const void* buf,
                      const errdesc_t* err) {
    const auto count = static_cast<std::size_t>(size);
    const auto position = static_cast<std::uintmax_t>(offset);
    if (size < 1) {
        ts_printf("%s(%p, %zu, %ju, %s): size = %zd, err = %p\n", func, buf, count, position, path, size,
                  static_cast<const void*>(err));
        return;
    }
    if (!_verbose_debug_enabled || !buf_has_non_zero_content(buf, count))
        return;
    md5_digest_t digest{};
    cor_assert(EVP_Digest(buf, count, digest.data(), nullptr, EVP_md5(), nullptr) == 1);
    ts_printf("%s(%p, %zu, %ju, %s): md5 = %s\n", func, buf, count, position, path, md5_to_str(digest).c_str());
}

}  // namespace mirador
