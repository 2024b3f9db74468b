// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmx/vmx_encoding.h"

#include <iconv.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>

#include "vmware/lib/vmx/vmx_scan.h"

namespace mirador {
namespace {

constexpr const char* utf8 = "UTF-8";
constexpr const char* undeclared = "CP1252";

struct encoding_t {
    std::string_view name;  // in lower case, without "-" and "_"
    const char* converter;
};

constexpr encoding_t encodings[] = {
    {"utf8", utf8},
    {"usascii", "ASCII"},
    {"ascii", "ASCII"},
    {"windows1250", "CP1250"},
    {"windows1251", "CP1251"},
    {"windows1252", "CP1252"},
    {"windows1253", "CP1253"},
    {"windows1254", "CP1254"},
    {"windows1255", "CP1255"},
    {"windows1256", "CP1256"},
    {"windows1257", "CP1257"},
    {"windows1258", "CP1258"},
    {"windows874", "CP874"},
    {"iso88591", "ISO-8859-1"},
    {"iso88592", "ISO-8859-2"},
    {"iso88595", "ISO-8859-5"},
    {"iso88597", "ISO-8859-7"},
    {"iso88599", "ISO-8859-9"},
    {"iso885915", "ISO-8859-15"},
    {"koi8r", "KOI8-R"},
    {"koi8u", "KOI8-U"},
    // Japanese files of Windows hosts use the characters of code page 932 under either name.
    {"shiftjis", "CP932"},
    {"windows31j", "CP932"},
    {"windows932", "CP932"},
    {"eucjp", "EUC-JP"},
    {"gbk", "GBK"},
    {"gb2312", "GBK"},
    {"windows936", "GBK"},
    {"gb18030", "GB18030"},
    {"big5", "BIG5"},
    {"windows950", "CP950"},
    {"euckr", "EUC-KR"},
    {"windows949", "CP949"},
    {"ksc56011987", "CP949"},
};

class converter_t {
  public:
    converter_t(const char* to, const char* from) : handle_(iconv_open(to, from)) {}
    converter_t(const converter_t&) = delete;
    converter_t& operator=(const converter_t&) = delete;
    ~converter_t() {
        if (is_open())
            iconv_close(handle_);
    }

    // Nothing when the converter does not exist on this machine or the text cannot be converted whole.
    std::optional<std::string> convert(std::string_view text) {
        if (!is_open())
            return std::nullopt;
        std::string copy(text);  // iconv's input is not const
        std::string result(text.size() * max_growth, '\0');
        char* in = copy.data();
        char* out = result.data();
        std::size_t in_left = copy.size();
        std::size_t out_left = result.size();
        if (iconv(handle_, &in, &in_left, &out, &out_left) == failed)
            return std::nullopt;
        if (iconv(handle_, nullptr, nullptr, &out, &out_left) == failed)
            return std::nullopt;
        result.resize(result.size() - out_left);
        return result;
    }

  private:
    static constexpr std::size_t max_growth = 6;  // bytes for one byte: more than any pair of the list needs
    static constexpr auto failed = static_cast<std::size_t>(-1);

    bool is_open() const { return reinterpret_cast<std::intptr_t>(handle_) != -1; }

    iconv_t handle_;
};

bool is_ascii(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

bool is_utf8(std::string_view text) {
    return converter_t(utf8, utf8).convert(text).has_value();
}

std::optional<std::string> to_utf8(std::string_view text, std::string_view declared) {
    if (is_ascii(text) || (declared.empty() && is_utf8(text)))
        return std::string(text);
    const char* const name = declared.empty() ? undeclared : vmx_encoding_name(declared);
    return name == nullptr ? std::nullopt : converter_t(utf8, name).convert(text);
}

}  // namespace

const char* vmx_encoding_name(std::string_view declared) {
    std::string name = vmx_lower(declared);
    std::erase_if(name, [](char c) { return c == '-' || c == '_'; });
    if (name.starts_with("cp"))
        name.replace(0, 2, "windows");
    const auto* const found = std::find_if(std::begin(encodings), std::end(encodings),
                                           [&](const encoding_t& encoding) { return encoding.name == name; });
    return found == std::end(encodings) ? nullptr : found->converter;
}

std::string vmx_decode(std::string_view value, std::string_view declared) {
    return vmx_unescape(to_utf8(value, declared).value_or(std::string(value)));
}

std::optional<std::string> vmx_encode(std::string_view text, std::string_view declared) {
    const std::string value = vmx_escape(text);
    if (is_ascii(value))
        return value;
    const char* const name = declared.empty() ? utf8 : vmx_encoding_name(declared);
    return name == nullptr ? std::nullopt : converter_t(name, utf8).convert(value);
}

}  // namespace mirador
