// SPDX-License-Identifier: Apache-2.0
// shadow-entry ROOT <LINES
//
// Writes proxy headers below ROOT, with the directories on their way: what a controller's inventory does in a running
// appliance, for tests, as a daemon started with --no-threads exports what stands in its shadow tree. Each line has
// these words, set apart by tabs, and then the entry's name:
//
//   --type flat|ascii|vmx|cfg   what is exported
//   --link PATH                 the real object: a disk's descriptor, a file
//   --stat PATH                 whose attributes are reported (the link's)
//   --size BYTES                of a flat disk, by its descriptor
//   --uuid UUID, --hv NAME      of the VM, a template, and of its hypervisor
//
// Exit status 1 and one line for each entry that cannot be written.
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <string_view>

#include "appliance/exporter/controller_thr.h"
#include "appliance/exporter/vm_proxy_touch.h"
#include "lib/file_tree.h"

namespace mirador {
namespace {

constexpr mode_t directory_mode = 0755;

const std::map<std::string_view, vm_proxy_header_type_t> types = {
    {"flat", VM_PROXY_HEADER_VMDK_FLAT},
    {"ascii", VM_PROXY_HEADER_VMDK_ASCII},
    {"vmx", VM_PROXY_HEADER_VMX},
    {"cfg", VM_PROXY_HEADER_CFG},
};

struct entry_t {
    vm_proxy_touch_t touch;
    std::string name;
};

entry_t parse_entry(const std::string& line) {
    std::map<std::string, std::string> values;
    entry_t entry;
    std::istringstream words(line);
    for (std::string word; std::getline(words, word, '\t');) {
        if (word.starts_with("--"))
            std::getline(words, values[word], '\t');
        else
            entry.name = word;
    }
    entry.touch.type = types.at(values["--type"]);
    entry.touch.link_path = values["--link"];
    entry.touch.stat_path = values.contains("--stat") ? values["--stat"] : values["--link"];
    entry.touch.size = std::stoll(values["--size"]);
    entry.touch.vm_uuid = values["--uuid"];
    entry.touch.hv_name = values["--hv"];
    entry.touch.is_template = true;
    return entry;
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

}  // namespace
}  // namespace mirador

int main(int argc, char** argv) {
    if (argc < 2 || !std::filesystem::is_directory(argv[1])) {
        mirador::tell("ROOT", "no directory");
        return 1;
    }
    mirador::cnt_thr_set_up(argv[1], true);
    bool all_written = true;
    for (std::string line; std::getline(std::cin, line);)
        all_written &= mirador::write_entry(mirador::parse_entry(line));
    return all_written ? 0 : 1;
}
