// SPDX-License-Identifier: Apache-2.0
// What the block-list script writes, line by line (4095 characters at most):
//
//   # a comment: any line with this character in it
//   changeid: <the disk's change id, the rest of the line>
//   length: <bytes>
//   start: <byte offset>        ends a range, whose length is that of the "length" line before it
//
// Any other line, an empty one too, is an error.
#pragma once

#include <cstdio>
#include <string>

#include "appliance/lib/corcbt.h"
#include "lib/errdesc.h"

namespace mirador {

// Reads a results file: the changed ranges in the order in which they stand there (magic 0), and the change id, empty
// when the file tells none. With `changeid_only` ranges are checked likewise but not kept. Time and memory are linear
// in the file's size. Whether the ranges lie within the disk is another question (cbt_check_extents).
// Errors: errno with the path, EINVAL for what is no regular file; ERR_INVALID_ARG (1009) "Invalid cbt results".
[[nodiscard]] errdesc_t* cbt_process_list(const std::string& results_path, bool changeid_only, cbt_extent_list_t* list,
                                          std::string* changeid);

// The same from an open stream.
[[nodiscard]] errdesc_t* _cbt_read_results(std::FILE* stream, bool changeid_only, cbt_extent_list_t* list,
                                           std::string* changeid);

}  // namespace mirador
