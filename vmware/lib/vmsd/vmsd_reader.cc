// SPDX-License-Identifier: Apache-2.0
#include "vmware/lib/vmsd/vmsd_reader.h"

#include <cerrno>

#include "vmsdlex.h"
#include "vmsdparse.h"

namespace mirador {

constexpr const char* null_device = "/dev/null";

vmsd_reader_t::~vmsd_reader_t() {
    if (scanner_ && vmsdlex_destroy(scanner_) != 0)
        _errdesc_log(errdesc_set_str(EINVAL, "cannot free the scanner"), ERRDESC_ERROR);
}

errdesc_t* vmsd_reader_t::open() {
    echo_.reset(std::fopen(null_device, "we"));
    if (!echo_)
        return errdesc_set_str(errno, null_device);
    if (vmsdlex_init_extra(&dropped_, &scanner_) != 0) {
        scanner_ = nullptr;
        return errdesc_set_str(EINVAL, "cannot initialize the scanner");
    }
    vmsdset_out(echo_.get(), scanner_);
    return nullptr;
}

bool vmsd_reader_t::parse(std::string_view text, vmsd_parse_state_t state) {
    text = text.substr(0, text.find('\0'));
    const YY_BUFFER_STATE buffer = vmsd_scan_bytes(text.data(), static_cast<int>(text.size()), scanner_);
    state.scanner = scanner_;
    const bool parsed = vmsd_parser_t(state).parse() == 0;
    vmsd_delete_buffer(buffer, scanner_);
    return parsed;
}

}  // namespace mirador
