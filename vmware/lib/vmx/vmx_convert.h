// SPDX-License-Identifier: Apache-2.0
// A copy of a VMX file whose disk references name base disks, as the exported tree shows them.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "lib/errdesc.h"
#include "lib/text_file.h"
#include "vmware/lib/vmx/vmx.h"

namespace mirador {

// Pairs of a disk as it is attached now (its newest descriptor: an absolute path, or one relative to the VM's working
// directory or the VMX file's) and the file name under which its base is exported.
using vmx_conversion_t = std::vector<std::pair<std::string, std::string>>;

// The text of the open description `desc` with each disk reference ("<bus>N:M.fileName") that belongs to an entry of
// `conversion` replaced by the entry's name. Everything else stays as it is, byte by byte.
//
// A reference belongs to the entry of the same path. Where none has it, the same place may go under two names (mount
// roots, a datastore's uuid and label, the working directory): then to the one whose path agrees in the most
// components counted from its end, at least in the file name. Where several are as good, to none. An entry has one
// reference; references that belong to no entry stay, as do CD-ROMs. Error: EILSEQ "%s cannot be written in the
// encoding of %s" (name and file).
[[nodiscard]] errdesc_t* vmx_convert_text(const vmxdesc_t& desc, const std::string& text,
                                          const vmx_conversion_t& conversion, std::string* converted);

// Copies the VMX file `path` to `copy_path`, making its directory, converted by vmx_convert_text.
//
// Nobody sees half of the copy; it gets the original's permissions and access and modification times. Errors: those of
// vmx_open, `check` and vmx_convert_text; errno with the path or with "Cannot make directory %s".
[[nodiscard]] errdesc_t* vmx_copy_convert(const std::string& path, const std::string& copy_path,
                                          const vmx_conversion_t& conversion,
                                          const opened_file_check_t& check = nullptr);

}  // namespace mirador
