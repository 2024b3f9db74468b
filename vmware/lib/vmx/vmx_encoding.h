// SPDX-License-Identifier: Apache-2.0
// Encodings of VMX files. Only those of a fixed list are converted, all of them without shift states: the name comes
// from the file, and converters in general are not made for hostile ones.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace mirador {

// The converter's name of an encoding as a file declares it ("windows-1252", "Shift_JIS", in any letter case and
// with or without "-" and "_"); null when it is not one of the list.
const char* vmx_encoding_name(std::string_view declared);

// The text of a value as it stands in a file of the encoding declared: in UTF-8, without escapes. Where the encoding is
// not known or the bytes are no text in it, they are kept. A file that declares none (empty) is taken to be in UTF-8,
// and a value that is not, in windows-1252.
std::string vmx_decode(std::string_view value, std::string_view declared);

// The other way: what stands between the quotes. Nothing when the encoding is not known or has no such characters.
std::optional<std::string> vmx_encode(std::string_view text, std::string_view declared);

}  // namespace mirador
