// SPDX-License-Identifier: Apache-2.0
#include "tools/mirador-fileops/fileops.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "controller/lib/controller.h"
#include "lib/file_io.h"
#include "tools/mirador-fileops/fileops_text.h"

namespace mirador {
namespace {

constexpr const char* program = "mirador-fileops";

void print_help(std::FILE* out) {
    std::fprintf(out,
                 "Usage: %s [OPTION]... HYPERVISOR COMMAND [PATH]...\n"
                 "Works on the files of HYPERVISOR's datastores, through its agent; the controller\n"
                 "of this machine tells how it is reached. A PATH is \"[datastore] folder/file\" or\n"
                 "/vmfs/volumes/datastore/folder/file.\n\n",
                 program);
    for (const fileops_command_t& command : fileops_commands())
        std::fprintf(out, "  %-6s%-9s%s\n", command.name, command.operands, command.help);
    std::fputs(
        "\n  -f, --force            cp, mv: replace what has the new path\n"
        "  -p, --parents          mkdir: make the folders above it too\n"
        "  -h, --human            sizes with units, as on a terminal\n"
        "      --json             ls, stat, df: as JSON\n"
        "      --datacenter NAME  of the paths; without it, that of the datastore\n"
        "  -v, --verbose          what happens meanwhile, on standard error\n"
        "      --help             print this\n\n"
        "What an agent has begun it also ends when this command is interrupted.\n\n"
        "Exit status: 0; 1 when it failed; 2 for a wrong command line.\n",
        out);
}

// While one lives, standard output leads to a file or stream of another descriptor.
class stdout_elsewhere_t {
  public:
    explicit stdout_elsewhere_t(bool to_stderr) : saved_(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)) {
        const unique_fd nowhere(to_stderr ? -1 : open("/dev/null", O_WRONLY | O_CLOEXEC));
        std::fflush(stdout);
        dup2(to_stderr ? STDERR_FILENO : nowhere.get(), STDOUT_FILENO);
    }
    ~stdout_elsewhere_t() {
        std::fflush(stdout);
        dup2(saved_.get(), STDOUT_FILENO);
    }
    stdout_elsewhere_t(const stdout_elsewhere_t&) = delete;
    stdout_elsewhere_t& operator=(const stdout_elsewhere_t&) = delete;

  private:
    const unique_fd saved_;
};

// The controller's record of the hypervisor. Error: ENOENT, with the names of those that there are.
errdesc_t* find_hypervisor(const std::string& name, ks_hypervisor_config_t* hvc) {
    record_list_ptr<ks_hypervisor_config_t> list;
    RETURN_IF_ERROR(controller_get_hypervisors(&list));
    std::string others;
    while (std::optional<ks_hypervisor_config_t> found = list_pop(*list)) {
        if (found->hostname == name) {
            *hvc = std::move(*found);
            return nullptr;
        }
        others += (others.empty() ? "" : ", ") + ks_text(found->hostname);
    }
    return errdesc_set_fmt(ENOENT, "%s: no such hypervisor; the controller knows %s", name.c_str(),
                           others.empty() ? "none" : others.c_str());
}

errdesc_t* run(const fileops_options_t& options, std::string* text) {
    const stdout_elsewhere_t elsewhere(options.verbose);
    ks_hypervisor_config_t hvc;
    RETURN_IF_ERROR(find_hypervisor(options.hypervisor, &hvc));
    return options.command->run(hvc, options, text);
}

errdesc_t* print(const std::string& text, std::FILE* out) {
    std::fputs(text.c_str(), out);
    return std::fflush(out) != 0 || std::ferror(out) != 0 ? errdesc_set_str(EIO, "standard output") : nullptr;
}

}  // namespace

int fileops_main(const std::vector<std::string>& args, std::FILE* out, std::FILE* err) {
    fileops_options_t options;
    std::string fault;
    if (!fileops_parse_options(args, &options, &fault)) {
        std::fprintf(err, "%s: %s; see %s --help\n", program, fault.c_str(), program);
        return 2;
    }
    if (options.help) {
        print_help(out);
        return 0;
    }
    options.human = options.human || isatty(fileno(out)) != 0;
    std::string text;
    const errdesc_t* e = run(options, &text);
    if (e == nullptr)
        e = print(text, out);
    if (e == nullptr)
        return 0;
    std::fprintf(err, "%s: %s\n", program, printable(e->string).c_str());
    return 1;
}

}  // namespace mirador
