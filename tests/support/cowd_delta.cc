// SPDX-License-Identifier: Apache-2.0
// cowd-delta: makes the copy-on-write delta disk that turns one raw image into another.
#include <getopt.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "tests/support/cowd_writer.h"

namespace {

constexpr const char* usage =
    "Usage: cowd-delta [--grain SECTORS] [--cid HEX] --parent-cid HEX --parent-hint NAME BASE_RAW NEW_RAW DELTA.vmdk\n"
    "Writes DELTA.vmdk and DELTA-delta.vmdk. The two images have one size; a grain is 1 sector unless given.\n";

struct options_t {
    std::uint32_t grainsize = 1;
    mirador::cowd_descriptor_t descriptor;
};

constexpr int hexadecimal = 16;
constexpr int decimal = 10;

bool parse_number(const char* text, int base, std::uint32_t* value) {
    char* end = nullptr;
    errno = 0;
    const unsigned long long parsed = std::strtoull(text, &end, base);
    *value = static_cast<std::uint32_t>(parsed);
    return errno == 0 && end != text && *end == '\0' && *value == parsed;
}

bool parse_options(int argc, char** argv, options_t* options) {
    static const option known[] = {{"grain", required_argument, nullptr, 'g'},
                                   {"cid", required_argument, nullptr, 'c'},
                                   {"parent-cid", required_argument, nullptr, 'p'},
                                   {"parent-hint", required_argument, nullptr, 'h'},
                                   {nullptr, 0, nullptr, 0}};
    bool good = true;
    for (int c = 0; good && (c = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
        switch (c) {
            case 'g':
                good = parse_number(optarg, decimal, &options->grainsize) && options->grainsize > 0;
                break;
            case 'c':
                good = parse_number(optarg, hexadecimal, &options->descriptor.cid);
                break;
            case 'p':
                good = parse_number(optarg, hexadecimal, &options->descriptor.parent_cid);
                break;
            case 'h':
                options->descriptor.parent_hint = optarg;
                break;
            default:
                good = false;
        }
    }
    return good && !options->descriptor.parent_hint.empty() && options->descriptor.parent_cid != 0;
}

}  // namespace

int main(int argc, char** argv) {
    options_t options;
    if (!parse_options(argc, argv, &options) || argc - optind != 3) {
        std::fputs(usage, stderr);
        return EXIT_FAILURE;
    }
    const char* base = argv[optind];
    const char* image = argv[optind + 1];
    const char* delta = argv[optind + 2];
    if (const auto* e = mirador::write_cowd_delta(base, image, delta, options.grainsize, options.descriptor)) {
        std::fprintf(stderr, "cowd-delta: %s\n", e->string);
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
