// SPDX-License-Identifier: Apache-2.0
#include "lib/secret.h"

#include <cstring>

namespace mirador {

secret_t& secret_t::operator=(const secret_t& other) {
    if (this != &other) {
        _wipe();
        value_ = other.value_;
    }
    return *this;
}

void secret_t::_wipe() {
    explicit_bzero(value_.data(), value_.size());
}

}  // namespace mirador
