// SPDX-License-Identifier: Apache-2.0
// mirador-fileops: files on a hypervisor's datastores, for a person. The controller tells how the hypervisor is
// reached, its agent does the work; the login never passes a command line.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>
#include <vector>

#include "controller/lib/kestrel_types.h"
#include "lib/errdesc.h"

namespace mirador {

struct fileops_options_t;

// Carries a command out; *text is what it prints. Errors: the agent's and the session's.
using fileops_function_t = errdesc_t* (*)(const ks_hypervisor_config_t& hvc, const fileops_options_t& options,
                                          std::string* text);

// A command, as the command line names it.
struct fileops_command_t {
    const char* name;
    const char* operands;
    const char* help;
    fileops_function_t run;
    std::size_t paths;  // how many it takes
    bool takes_force = false;
    bool takes_parents = false;
    bool prints = false;  // sizes, or JSON instead
};

struct fileops_options_t {
    bool help = false;
    bool human = false;
    bool json = false;
    bool verbose = false;
    bool force = false;
    bool parents = false;
    std::string datacenter;  // empty: the datastore's own
    std::string hypervisor;
    const fileops_command_t* command = nullptr;
    std::vector<std::string> paths;
};

const std::vector<fileops_command_t>& fileops_commands();

// Reads a command line without the program's name. False, with the fault in *fault, when it makes no sense.
[[nodiscard]] bool fileops_parse_options(const std::vector<std::string>& args, fileops_options_t* options,
                                         std::string* fault);

// The program. Its exit status is 0; 1 with one line on `err` when the operation failed or its output cannot be
// written; 2 with a line on `err` for a command line that makes no sense. SIGPIPE must have a handler, as an agent may
// die. While it works, this process's standard output leads nowhere, or with --verbose to standard error: what the
// parts below log there is no part of the output.
int fileops_main(const std::vector<std::string>& args, std::FILE* out, std::FILE* err);

}  // namespace mirador
