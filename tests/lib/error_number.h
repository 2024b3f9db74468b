// SPDX-License-Identifier: Apache-2.0
// What a call came to, in one number.
#pragma once

#include "lib/errdesc.h"

namespace mirador {

// 0: no error.
inline errnum_t number_of(const errdesc_t* e) {
    return e == nullptr ? 0 : e->number;
}

}  // namespace mirador
