// SPDX-License-Identifier: Apache-2.0
#include <algorithm>
#include <array>
#include <cctype>

#include "vmware/lib/vmsd/vmsd_parse.h"
#include "vmware/lib/vmsd/vmsd_reader.h"

namespace mirador {
namespace {

constexpr std::string_view blanks = " \t\r";

std::string_view trimmed(std::string_view text) {
    text = text.substr(0, text.find_last_not_of(blanks) + 1);
    return text.substr(std::min(text.find_first_not_of(blanks), text.size()));
}

// Takes a word, in any letter case, and the blanks behind it off *text.
bool take_word(std::string_view* text, std::string_view word) {
    const auto same = [](char a, char b) {
        return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
    };
    if (text->size() < word.size() || !std::equal(word.begin(), word.end(), text->begin(), same))
        return false;
    *text = trimmed(text->substr(word.size()));
    return true;
}

// The value of a line `.encoding = "value"`; false for any other line.
bool read_encoding(std::string_view line, std::string* encoding) {
    if (!take_word(&line, ".encoding") || !take_word(&line, "=") || !line.starts_with('"'))
        return false;
    line.remove_prefix(1);
    *encoding = line.substr(0, line.find('"'));
    return true;
}

class filter_t {
  public:
    errdesc_t* open() { return reader_.open(); }

    void add(std::string_view line) {
        const std::string_view content = trimmed(line);
        if (content.empty() || content.starts_with('#') || read_encoding(content, &encoding_))
            return;
        // Every line of the grammar begins with this word; parsers are dear.
        vmsd_seen_t seen;
        std::string_view rest = content;
        const bool fits = take_word(&rest, "snapshot") && reader_.parse(content, {.seen = &seen, .any_text = true});
        if (reader_.take_dropped() > 0 || !fits) {
            ++lost_;
            return;
        }
        std::string& text = texts_.at(static_cast<std::size_t>(seen.kind));
        text += content;
        text += '\n';
    }

    vmsd_filtered_t result() const { return {texts_[0] + texts_[1] + texts_[2], encoding_, lost_}; }

  private:
    vmsd_reader_t reader_;
    std::array<std::string, 3> texts_;  // by vmsd_line_t
    std::string encoding_;
    std::uint32_t lost_ = 0;
};

}  // namespace

errdesc_t* vmsd_filter(std::string_view text, vmsd_filtered_t* filtered) {
    filter_t filter;
    RETURN_IF_ERROR(filter.open());
    text = text.substr(0, text.find('\0'));
    while (!text.empty()) {
        const std::size_t length = std::min(text.find('\n'), text.size());
        filter.add(text.substr(0, length));
        text.remove_prefix(std::min(length + 1, text.size()));
    }
    *filtered = filter.result();
    return nullptr;
}

}  // namespace mirador
