// SPDX-License-Identifier: Apache-2.0
// Runs the snapshot database's scanner and grammar over texts. No other module includes this.
#pragma once

#include <cstddef>
#include <string_view>
#include <utility>

#include "lib/errdesc.h"
#include "lib/file_io.h"
#include "vmware/lib/vmsd/vmsd_parse_state.h"

namespace mirador {

// One scanner with its echo output. Belongs to one thread.
class vmsd_reader_t {
  public:
    vmsd_reader_t() = default;
    ~vmsd_reader_t();
    vmsd_reader_t(const vmsd_reader_t&) = delete;
    vmsd_reader_t& operator=(const vmsd_reader_t&) = delete;

    // Errors: errno with "/dev/null"; EINVAL "cannot initialize the scanner".
    [[nodiscard]] errdesc_t* open();

    // Parses a text, which ends before its first zero byte, as `state` asks. Whether every line of it fits the grammar;
    // the parse stops at the first that does not. The reader must be open.
    [[nodiscard]] bool parse(std::string_view text, vmsd_parse_state_t state);

    // How many characters the scanner has passed over since, blanks and carriage returns not counted.
    std::size_t take_dropped() { return std::exchange(dropped_, 0); }

  private:
    file_ptr echo_;
    void* scanner_ = nullptr;
    std::size_t dropped_ = 0;
};

}  // namespace mirador
