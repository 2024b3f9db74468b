// SPDX-License-Identifier: Apache-2.0
#include "tools/mirador-fileops/fileops.h"

#include <gtest/gtest.h>

#include "tools/mirador-fileops/fileops_text.h"

namespace mirador {
namespace {

// What is understood of a command line, or the fault.
std::string understood(const std::vector<std::string>& args) {
    fileops_options_t options;
    std::string fault;
    if (!fileops_parse_options(args, &options, &fault))
        return fault;
    std::string text = options.help ? "help" : options.hypervisor + " " + options.command->name;
    for (const std::string& path : options.paths)
        text += " <" + path + ">";
    for (const auto& [is_set, name] :
         {std::pair{options.human, " human"}, std::pair{options.json, " json"}, std::pair{options.verbose, " verbose"},
          std::pair{options.force, " force"}, std::pair{options.parents, " parents"}})
        text += is_set ? name : "";
    return text + (options.datacenter.empty() ? "" : " in " + options.datacenter);
}

TEST(fileops_options, SayWhatIsWanted) {
    struct {
        std::vector<std::string> args;
        const char* meaning;
    } const cases[] = {
        {{"esx", "df"}, "esx df"},
        {{"-v", "esx", "ls", "[ds] a b", "-h"}, "esx ls <[ds] a b> human verbose"},
        {{"esx", "cp", "-f", "[ds] a", "[ds] b", "--datacenter", "dc"}, "esx cp <[ds] a> <[ds] b> force in dc"},
        {{"esx", "mkdir", "--parents", "--", "-f"}, "esx mkdir <-f> parents"},
        {{"esx", "stat", "--json", ""}, "esx stat <> json"},
        {{"--help", "nonsense"}, "help"},
        {{}, "a hypervisor and a command are needed"},
        {{"df"}, "a hypervisor and a command are needed"},
        {{"esx", "dd"}, "unknown command \"dd\""},
        {{"esx", "df", "x"}, "df takes nothing"},
        {{"esx", "ls"}, "ls needs PATH"},
        {{"esx", "mv", "a", "b", "c"}, "mv needs FROM TO"},
        {{"esx", "rm", "-f", "a"}, "--force is not for rm"},
        {{"esx", "cp", "-p", "a", "b"}, "--parents is not for cp"},
        {{"esx", "rm", "--json", "a"}, "--json is not for rm"},
        {{"esx", "mkdir", "-h", "a"}, "--human is not for mkdir"},
        {{"esx", "rm", "-fr", "a"}, "unknown option \"-r\""},
        {{"esx", "rm", "--recursive", "a"}, "unknown option \"--recursive\""},
        {{"esx", "df", "--json=no"}, "unknown option \"--json=no\""},
        {{"esx", "rm", "a", "--datacenter"}, "--datacenter needs a name"},
        {{"esx", "rm", "a", "--datacenter="}, "--datacenter needs a name"},
    };
    for (const auto& c : cases)
        EXPECT_EQ(understood(c.args), c.meaning);
}

// Who may write to a datastore chooses names, and must not reach the terminal with them.
TEST(fileops_text, NamesStayOnTheirLine) {
    const std::pair<std::string_view, const char*> cases[] = {
        {"a b ä 漢.vmx", "a b ä 漢.vmx"},
        {"\x1b[2J\n\t\x7f", "\\x1b[2J\\x0a\\x09\\x7f"},
        {"\xc2\x9bH \xc2\xa0 \xc2", "\\xc2\\x9bH \xc2\xa0 \xc2"},
        {"\\x1b", "\\\\x1b"},
    };
    for (const auto& [text, shown] : cases)
        EXPECT_EQ(printable(text), shown);
}

}  // namespace
}  // namespace mirador
