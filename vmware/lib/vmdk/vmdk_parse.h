// SPDX-License-Identifier: Apache-2.0
// Reading a disk's text descriptor into its record: one item per line, unknown and damaged lines are passed over.
//
// The text is a small file of its own, or lies behind the 512-byte header of a sparse extent. It ends at the end of
// the file or at its first zero byte, so the binary part of an extent is never taken for text. A text of more than
// vmdk_max_text bytes is not a descriptor.
//
// Each call makes its own scanner and parser: any thread may parse at any time. The record belongs to the caller, who
// calls vmdk_free_vmdkdesc in every case: a failed parse leaves in it what the lines before the failure said.
//
// Numbers too large for their field are the field's largest value; a content id of more than 32 bits is no content id
// and its line is passed over.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <string>

#include "lib/errdesc.h"
#include "vmware/lib/vmdk/vmdkdesc.h"

namespace mirador {

inline constexpr std::size_t vmdk_max_text = std::size_t{4} << 20;  // bytes
inline constexpr std::size_t vmdk_max_name = 1023;                  // characters of an extent's file name

// Prints the parser's trace and every syntax error to standard error. Read without a lock.
inline std::atomic<bool> vmdkdebug = false;

// Empties *vmdkdesc and fills it from the file `path`: from the text at its start or, when that is none, from the text
// at byte 512 (what the first attempt stored stays).
// Errors: the open's or read's errno with the path; errno with "/dev/null"; EAGAIN "cannot parse the input file";
// EINVAL "cannot initialize the scanner".
// Asserted: vmdkdesc is not null, the file can seek, no extent's name is longer than vmdk_max_name. For files that
// somebody else may have written, call vmdk_check_descriptor first.
[[nodiscard]] errdesc_t* vmdk_parse_file_contents(const std::string& path, vmdkdesc_t* vmdkdesc);

// The same from a text in memory, up to its first zero byte, and without a second attempt. A text that cannot be
// parsed is EINVAL "cannot parse the input file".
[[nodiscard]] errdesc_t* vmdk_parse_file_contents3(const std::string& text, vmdkdesc_t* vmdkdesc);

// What a text says that its record does not show.
struct vmdk_parse_faults_t {
    unsigned lost_extents = 0;      // lines that begin as an extent's and do not fit the grammar: passed over
    unsigned overlong_names = 0;    // extent names and parent hints above vmdk_max_name: cut to it
    bool too_many_extents = false;  // a line beyond vmdkdesc_t::max_extents: the parse failed there
    bool too_long = false;          // more than vmdk_max_text bytes: the parse failed
    bool two_texts = false;         // extents from both the start of the file and byte 512
};

// vmdk_parse_file_contents on an open stream at its start, for a file that nobody has looked at yet: nothing in the
// text is asserted on, *faults tells it instead. `path` stands in error texts only.
[[nodiscard]] errdesc_t* vmdk_parse_stream_checked(std::FILE* stream, const std::string& path, vmdkdesc_t* vmdkdesc,
                                                   vmdk_parse_faults_t* faults);

}  // namespace mirador
