// SPDX-License-Identifier: Apache-2.0
// shadow-entry ROOT [OPTION ...] NAME     writes the proxy header ROOT/NAME, with the directories on its way
// shadow-entry ROOT --batch               as often as standard input has lines: options and NAME, set apart by tabs
//
// What a controller's inventory does in a running appliance, for tests and the demo: a daemon started with --no-threads
// exports what stands in its shadow tree. Exit status 1 and one line for each entry that cannot be written.
#include <getopt.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "appliance/exporter/controller_thr.h"
#include "appliance/exporter/vm_proxy_touch.h"
#include "lib/file_tree.h"

namespace mirador {
namespace {

constexpr mode_t directory_mode = 0755;

constexpr const char* help =
    "usage: shadow-entry ROOT [OPTION ...] NAME\n"
    "       shadow-entry ROOT --batch <LINES\n\n"
    "  --type flat|ascii|vmx|cfg|corcbt   what is exported (flat)\n"
    "  --link PATH     the real object: a disk's descriptor, a file\n"
    "  --stat PATH     whose attributes are reported (the link's)\n"
    "  --size BYTES    of a flat disk, by its descriptor (0)\n"
    "  --uuid UUID     of the VM\n"
    "  --hv NAME       of the hypervisor\n"
    "  --can-snapshot  the VM is no template: opening its disks takes a snapshot\n\n"
    "A line of a batch holds the same words, set apart by tabs.\n";

struct entry_t {
    vm_proxy_touch_t touch;
    std::string name;
};

struct type_name_t {
    std::string_view name;
    vm_proxy_header_type_t type;
};

constexpr std::array<type_name_t, 5> type_names = {{
    {"flat", VM_PROXY_HEADER_VMDK_FLAT},
    {"ascii", VM_PROXY_HEADER_VMDK_ASCII},
    {"vmx", VM_PROXY_HEADER_VMX},
    {"cfg", VM_PROXY_HEADER_CFG},
    {"corcbt", VM_PROXY_HEADER_VMDK_CORCBT},
}};

bool parse_type(std::string_view text, vm_proxy_header_type_t* type) {
    for (const type_name_t& known : type_names) {
        if (known.name != text)
            continue;
        *type = known.type;
        return true;
    }
    return false;
}

bool parse_size(const char* text, std::int64_t* size) {
    char* end = nullptr;
    *size = std::strtoll(text, &end, 10);
    return end != text && *end == '\0';
}

bool apply_option(int option, const char* value, vm_proxy_touch_t* touch) {
    switch (option) {
        case 't':
            return parse_type(value, &touch->type);
        case 'l':
            touch->link_path = value;
            return true;
        case 's':
            touch->stat_path = value;
            return true;
        case 'b':
            return parse_size(value, &touch->size);
        case 'u':
            touch->vm_uuid = value;
            return true;
        case 'h':
            touch->hv_name = value;
            return true;
        case 'c':
            touch->is_template = false;
            return true;
        default:
            return false;
    }
}

// `words` are the options and the name; words[0] is not looked at.
bool parse_entry(std::vector<std::string>& words, entry_t* entry) {
    static constexpr option options[] = {
        {"type", required_argument, nullptr, 't'},   {"link", required_argument, nullptr, 'l'},
        {"stat", required_argument, nullptr, 's'},   {"size", required_argument, nullptr, 'b'},
        {"uuid", required_argument, nullptr, 'u'},   {"hv", required_argument, nullptr, 'h'},
        {"can-snapshot", no_argument, nullptr, 'c'}, {nullptr, 0, nullptr, 0},
    };
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    const int argc = static_cast<int>(argv.size());
    argv.push_back(nullptr);

    vm_proxy_touch_t& touch = entry->touch;
    touch.type = VM_PROXY_HEADER_VMDK_FLAT;
    touch.is_template = true;
    optind = 0;                                                                                   // starts getopt anew
    for (int option = 0; (option = getopt_long(argc, argv.data(), "", options, nullptr)) != -1;)  // NOLINT
        if (!apply_option(option, optarg, &touch))
            return false;
    if (optind != argc - 1 || touch.link_path.empty())
        return false;
    entry->name = argv[static_cast<std::size_t>(optind)];
    if (touch.stat_path.empty())
        touch.stat_path = touch.link_path;
    return true;
}

bool tell(const std::string& name, const char* fault) {
    std::fprintf(stderr, "shadow-entry: %s: %s\n", name.c_str(), fault);
    return false;
}

bool write_entry(const entry_t& entry) {
    const std::filesystem::path path = std::filesystem::path(cnt_thr_namespaceroot()) / entry.name;
    if (errdesc_t* e = vm_proxy_touch_check(entry.touch))
        return tell(entry.name, e->string);
    if (mkdirp(path.parent_path(), directory_mode) != 0)
        return tell(path.parent_path(), "cannot be made");
    errdesc_t* e = vm_proxy_touch(path, entry.touch);
    return e == nullptr || tell(entry.name, e->string);
}

bool write_words(std::vector<std::string> words) {
    entry_t entry;
    if (!parse_entry(words, &entry))
        return tell(words.back(), "not an entry; shadow-entry without arguments tells what is");
    return write_entry(entry);
}

bool write_batch() {
    bool all_written = true;
    for (std::string line; std::getline(std::cin, line);) {
        std::vector<std::string> words{""};
        std::istringstream fields(line);
        for (std::string word; std::getline(fields, word, '\t');)
            words.push_back(word);
        all_written &= write_words(words);
    }
    return all_written;
}

}  // namespace
}  // namespace mirador

int main(int argc, char** argv) {
    const std::vector<std::string> words(argv, argv + argc);
    if (argc < 3) {
        std::fputs(mirador::help, stderr);
        return 1;
    }
    if (!std::filesystem::is_directory(words[1])) {
        std::fprintf(stderr, "shadow-entry: %s: no directory\n", words[1].c_str());
        return 1;
    }
    mirador::cnt_thr_set_up(words[1], true);
    const bool is_batch = argc == 3 && words[2] == "--batch";
    const bool written = is_batch ? mirador::write_batch() : mirador::write_words({words.begin() + 1, words.end()});
    return written ? 0 : 1;
}
