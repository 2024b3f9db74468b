// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmdk/vmdk_parse.h"

#include <cerrno>
#include <string_view>

#include "lib/cor_assert.h"
#include "lib/file_io.h"
#include "vmdklex.h"
#include "vmdkparse.h"
#include "vmware/lib/vmdk/vmdk_parse_state.h"

namespace mirador {
namespace {

constexpr const char* null_device = "/dev/null";
constexpr long embedded_offset = sector_size;  // a text behind a sparse extent's header
constexpr std::size_t read_size = std::size_t{64} << 10;

// Owns one scanner; null when it could not be made.
class scanner_t {
  public:
    scanner_t() {
        if (vmdklex_init(&scanner_) != 0)
            scanner_ = nullptr;
    }
    scanner_t(const scanner_t&) = delete;
    scanner_t& operator=(const scanner_t&) = delete;
    ~scanner_t() {
        if (scanner_ && vmdklex_destroy(scanner_) != 0)
            _errdesc_log(errdesc_set_str(EINVAL, "cannot free the scanner"), ERRDESC_ERROR);
    }
    yyscan_t get() const { return scanner_; }

  private:
    yyscan_t scanner_ = nullptr;
};

// One pass of a new scanner and parser over `text`; *parsed tells whether it could be parsed to its end.
errdesc_t* parse_text(std::string_view text, vmdk_parse_state_t state, bool* parsed) {
    *parsed = false;
    const file_ptr echo(std::fopen(null_device, "we"));
    if (!echo)
        return errdesc_set_str(errno, null_device);
    const scanner_t scanner;
    if (!scanner.get())
        return errdesc_set_str(EINVAL, "cannot initialize the scanner");
    vmdkset_out(echo.get(), scanner.get());
    vmdk_scan_bytes(text.data(), static_cast<int>(text.size()), scanner.get());

    state.scanner = scanner.get();
    vmdk_parser_t parser(state);
    parser.set_debug_level(vmdkdebug ? 1 : 0);
    *parsed = parser.parse() == 0;
    return nullptr;
}

// Reads from the stream's position to the first zero byte or the end; never much more than vmdk_max_text.
errdesc_t* read_text(std::FILE* stream, const std::string& path, std::string* text) {
    text->clear();
    std::size_t got = 0;
    do {
        const std::size_t begin = text->size();
        text->resize(begin + read_size);
        got = std::fread(text->data() + begin, 1, read_size, stream);
        if (std::ferror(stream))
            return errdesc_set_str(errno, path);
        text->resize(begin + got);
        if (const std::size_t zero = text->find('\0', begin); zero != std::string::npos) {
            text->resize(zero);
            break;
        }
    } while (got == read_size && text->size() <= vmdk_max_text);
    return nullptr;
}

errdesc_t* parse_from_here(std::FILE* stream, const std::string& path, const vmdk_parse_state_t& state, bool* parsed) {
    *parsed = false;
    std::string text;
    RETURN_IF_ERROR(read_text(stream, path, &text));
    if (text.size() <= vmdk_max_text)
        return parse_text(text, state, parsed);
    if (state.faults)
        state.faults->too_long = true;
    return nullptr;
}

errdesc_t* parse_stream(std::FILE* stream, const std::string& path, const vmdk_parse_state_t& state) {
    *state.desc = {};
    bool parsed = false;
    RETURN_IF_ERROR(parse_from_here(stream, path, state, &parsed));
    if (parsed)
        return nullptr;
    if (state.faults)
        state.faults->two_texts = !state.desc->extentdesc.empty();
    cor_assert(std::fseek(stream, embedded_offset, SEEK_SET) == 0);
    RETURN_IF_ERROR(parse_from_here(stream, path, state, &parsed));
    return parsed ? nullptr : errdesc_set_str(EAGAIN, "cannot parse the input file");
}

}  // namespace

errdesc_t* vmdk_parse_file_contents(const std::string& path, vmdkdesc_t* vmdkdesc) {
    cor_assert(vmdkdesc);
    const file_ptr stream(std::fopen(path.c_str(), "re"));
    if (!stream)
        return errdesc_set_str(errno, path);
    return parse_stream(stream.get(), path, {.desc = vmdkdesc});
}

errdesc_t* vmdk_parse_file_contents3(const std::string& text, vmdkdesc_t* vmdkdesc) {
    cor_assert(vmdkdesc);
    *vmdkdesc = {};
    const std::string_view until_zero(text.c_str());
    bool parsed = false;
    if (until_zero.size() <= vmdk_max_text)
        RETURN_IF_ERROR(parse_text(until_zero, {.desc = vmdkdesc}, &parsed));
    return parsed ? nullptr : errdesc_set_str(EINVAL, "cannot parse the input file");
}

errdesc_t* vmdk_parse_stream_checked(std::FILE* stream, const std::string& path, vmdkdesc_t* vmdkdesc,
                                     vmdk_parse_faults_t* faults) {
    cor_assert(vmdkdesc && faults);
    *faults = {};
    return parse_stream(stream, path, {.desc = vmdkdesc, .faults = faults});
}

}  // namespace mirador
