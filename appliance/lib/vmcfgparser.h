// SPDX-License-Identifier: Apache-2.0
// Reading the exported description of a VM (lib/vmcfg) back into its record.
//
// One item a line: key = value. Lines may be empty or a comment ("#" to its end); blanks, tabs and carriage returns
// between words mean nothing. Keys are matched as written. A quoted text may hold anything but a zero byte, line feeds
// too. A word for a conflict or a type may stand in quotes or not. Of an item that stands twice the last counts. A line
// that cannot be read is noted, and reading goes on behind its end.
//
// Each call makes its own scanner and parser: any thread may parse at any time.
#pragma once

#include <cstddef>
#include <cstdio>

#include "appliance/lib/vmcfg.h"
#include "lib/errdesc.h"

namespace mirador {

inline constexpr std::size_t vmcfg_max_text = std::size_t{16} << 20;  // bytes of a file; a larger one is invalid

// Reads from the stream's position to its end into *vmcfg, which is zeroed (as made, or freed). The caller frees it in
// every case: after an error it holds what could be read. Errors: EINVAL with the text of the first syntax error, "…
// at line %d"; EINVAL "vmcfg: invalid file", "vmcfg: cannot initialize the scanner"; cfg_parse_verify's; errno of
// a failed read with "vmcfg: cannot read the file"; errno with "/dev/null".
[[nodiscard]] errdesc_t* cfg_parse_file_contents(std::FILE* in, vmcfg_t* vmcfg);

}  // namespace mirador
