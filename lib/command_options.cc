// SPDX-License-Identifier: Apache-2.0
#include "lib/command_options.h"

#include <getopt.h>

#include <algorithm>

namespace mirador {
namespace {

constexpr int a_word = 1;         // what getopt_long returns for what is no option
constexpr int first_index = 256;  // and for the first long option: no letter's number

// The options in getopt_long's terms. The leading characters: words come in their order, whatever the environment says,
// and a missing value is told from an unknown option.
struct getopt_rules_t {
    std::string letters = "-:";
    std::vector<option> names;
};

getopt_rules_t rules_of(const std::vector<command_option_t>& options) {
    getopt_rules_t rules;
    for (const command_option_t& known : options) {
        const int index = static_cast<int>(rules.names.size());
        rules.names.push_back({known.name, known.value != nullptr ? 1 : 0, nullptr, first_index + index});
        if (known.letter != 0)
            rules.letters += std::string(1, known.letter) + (known.value != nullptr ? ":" : "");
    }
    rules.names.push_back({});
    return rules;
}

// The option that getopt_long means by a letter or an index; nullptr: none.
const command_option_t* find_option(const std::vector<command_option_t>& options, int number) {
    if (number >= first_index)
        return &options[static_cast<std::size_t>(number - first_index)];
    const auto found =
        std::ranges::find_if(options, [&](const auto& known) { return number != 0 && known.letter == number; });
    return found == options.end() ? nullptr : &*found;
}

std::string unknown_option(const char* word) {
    const bool is_letter = optopt != 0 && optopt < first_index;
    return "unknown option \"" + (is_letter ? "-" + std::string(1, static_cast<char>(optopt)) : word) + "\"";
}

}  // namespace

command_option_t command_flag(const char* name, char letter, bool* flag) {
    return {.name = name, .letter = letter, .take = [flag](const std::string&) { return *flag = true; }};
}

bool command_options_parse(const std::vector<std::string>& args, const std::vector<command_option_t>& options,
                           std::vector<std::string>* words, std::string* fault) {
    const getopt_rules_t rules = rules_of(options);
    std::string program;
    std::vector<std::string> copies = args;
    std::vector<char*> argv = {program.data()};
    for (std::string& copy : copies)
        argv.push_back(copy.data());
    argv.push_back(nullptr);
    const int argc = static_cast<int>(argv.size()) - 1;
    optind = 0;  // begin anew
    opterr = 0;
    int number = 0;
    while ((number = getopt_long(argc, argv.data(), rules.letters.c_str(), rules.names.data(), nullptr)) != -1) {
        if (number == a_word) {
            words->emplace_back(optarg);
            continue;
        }
        const command_option_t* known = find_option(options, number == ':' ? optopt : number);
        if (known == nullptr) {
            *fault = unknown_option(argv[static_cast<std::size_t>(optind) - 1]);
            return false;
        }
        if (number == ':' || !known->take(optarg != nullptr ? optarg : "")) {
            *fault = std::string("--") + known->name + " needs " + known->value;
            return false;
        }
    }
    words->insert(words->end(), argv.begin() + optind, argv.end() - 1);
    return true;
}

}  // namespace mirador
