// SPDX-License-Identifier: Apache-2.0
#include "appliance/lib/vmcfg.h"

#include <cstdint>
#include <cstdio>

#include "lib/cor_assert.h"

namespace mirador {

int cfg_print_timestamps(std::time_t access_time, char* buf, int buf_size) {
    if (access_time == 0)
        return 0;
    const int offset = std::snprintf(buf, static_cast<std::size_t>(buf_size), "access-time = %jd\n",
                                     static_cast<std::intmax_t>(access_time));
    cor_assert_text(offset >= 0 && offset < buf_size - 1, "offset < buf_size - 1");
    return offset;
}

}  // namespace mirador
