// SPDX-License-Identifier: Apache-2.0
// On-disk records as plain bytes at plain offsets, written without the program's own structs.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace mirador {

class record_bytes_t {
  public:
    explicit record_bytes_t(std::size_t size) : bytes_(size, '\0') {}

    // Puts a little-endian number of `width` bytes.
    record_bytes_t& number(std::size_t offset, std::size_t width, std::uint64_t value) {
        for (std::size_t i = 0; i < width; i++)
            bytes_.at(offset + i) = static_cast<char>(value >> (8 * i));
        return *this;
    }
    record_bytes_t& text(std::size_t offset, std::string_view text) {
        bytes_.replace(offset, text.size(), text);
        return *this;
    }
    record_bytes_t& fill(std::size_t offset, std::size_t count, char c) { return text(offset, std::string(count, c)); }

    const std::string& bytes() const { return bytes_; }
    template <typename Record>
    Record as() const {
        Record record;
        bytes_.copy(reinterpret_cast<char*>(&record), sizeof record);
        return record;
    }

  private:
    std::string bytes_;
};

template <typename Record>
std::string bytes_of(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

// What `print` writes to the stream it is given.
template <typename Print>
std::string printed(Print print) {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* stream = open_memstream(&text, &size);
    print(stream);
    std::fclose(stream);
    std::string result(text, size);
    std::free(text);
    return result;
}

}  // namespace mirador
