// SPDX-License-Identifier: Apache-2.0
// bench-disk DIRECTORY PERCENT: writes the synthetic disk into DIRECTORY and prints the path of its descriptor. The
// delta holds PERCENT of the grains, in clusters.
#include <cstdio>
#include <cstdlib>

#include "bench/synthetic_disk.h"

int main(int argc, char** argv) {
    const unsigned long percent = argc == 3 ? std::strtoul(argv[2], nullptr, 10) : 0;
    if (percent < 1 || percent > 100) {
        std::fprintf(stderr, "usage: %s DIRECTORY PERCENT\n", argv[0]);
        return 1;
    }
    const std::string path =
        mirador::write_synthetic_disk(argv[1], static_cast<unsigned>(percent), mirador::layout_t::clustered);
    std::puts(path.c_str());
    return 0;
}
