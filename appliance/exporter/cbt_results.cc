// SPDX-License-Identifier: Apache-2.0
#include "appliance/exporter/cbt_results.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <string_view>

#include "lib/file_io.h"

namespace mirador {
namespace {

constexpr std::size_t longest_line = 4095;
constexpr char comment_sign = '#';
constexpr std::string_view changeid_key = "changeid: ";
constexpr std::string_view length_key = "length: ";
constexpr std::string_view start_key = "start: ";

enum class line_t { WHOLE, END, TOO_LONG };

errdesc_t* invalid() {
    return errdesc_set_str(ERR_INVALID_ARG, "Invalid cbt results");
}

// The next line, without its end.
line_t read_line(std::FILE* stream, std::string* line) {
    line->clear();
    int c = getc_unlocked(stream);
    if (c == EOF)
        return line_t::END;
    for (; c != EOF && c != '\n'; c = getc_unlocked(stream)) {
        if (line->size() == longest_line)
            return line_t::TOO_LONG;
        line->push_back(static_cast<char>(c));
    }
    line->erase(line->find_last_not_of('\r') + 1);
    return line_t::WHOLE;
}

// A count of bytes: decimal digits and nothing else.
bool read_number(std::string_view text, std::int64_t* number) {
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), *number);
    return failure == std::errc() && end == text.data() + text.size() && *number >= 0;
}

// What the lines so far have told.
class results_t {
  public:
    results_t(bool changeid_only, cbt_extent_list_t* list, std::string* changeid)
        : changeid_only_(changeid_only), list_(list), changeid_(changeid) {}

    // False for a line that does not belong there.
    bool take(std::string_view line) {
        if (line.find(comment_sign) != std::string_view::npos)
            return true;
        if (line.starts_with(changeid_key)) {
            *changeid_ = line.substr(changeid_key.size());
            return true;
        }
        if (line.starts_with(length_key))
            return _take_length(line.substr(length_key.size()));
        return line.starts_with(start_key) && _take_start(line.substr(start_key.size()));
    }

    // A range without its end would be lost: the file was cut, or a line of it is missing.
    bool is_whole() const { return length_ == none; }

  private:
    static constexpr std::int64_t none = -1;

    bool _take_length(std::string_view text) {
        std::int64_t length = 0;
        if (length_ != none || !read_number(text, &length))
            return false;
        length_ = length;
        return true;
    }

    bool _take_start(std::string_view text) {
        std::int64_t start = 0;
        if (length_ == none || !read_number(text, &start))
            return false;
        if (!changeid_only_)
            list_->push_back({.magic = 0, .start = start, .length = length_});
        length_ = none;
        return true;
    }

    bool changeid_only_;
    cbt_extent_list_t* list_;
    std::string* changeid_;
    std::int64_t length_ = none;  // of a range that has no start yet
};

// It neither waits for a pipe nor follows a link.
errdesc_t* open_results(const std::string& path, file_ptr* stream) {
    unique_fd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (!fd || fstat(fd.get(), &st) != 0)
        return errdesc_set_str(errno, path);
    if (!S_ISREG(st.st_mode))
        return errdesc_set_str(EINVAL, path);
    stream->reset(fdopen(fd.get(), "r"));
    if (*stream == nullptr)
        return errdesc_set_str(errno, path);
    (void)fd.release();
    return nullptr;
}

}  // namespace

errdesc_t* _cbt_read_results(std::FILE* stream, bool changeid_only, cbt_extent_list_t* list, std::string* changeid) {
    cbt_list_free(list);
    changeid->clear();
    results_t results(changeid_only, list, changeid);
    std::string line;
    line_t state = read_line(stream, &line);
    for (; state == line_t::WHOLE; state = read_line(stream, &line))
        if (!results.take(line))
            return invalid();
    if (std::ferror(stream) != 0)
        return errdesc_set(EIO);
    return state == line_t::END && results.is_whole() ? nullptr : invalid();
}

errdesc_t* cbt_process_list(const std::string& results_path, bool changeid_only, cbt_extent_list_t* list,
                            std::string* changeid) {
    file_ptr stream;
    RETURN_IF_ERROR(open_results(results_path, &stream));
    return _cbt_read_results(stream.get(), changeid_only, list, changeid);
}

}  // namespace mirador
