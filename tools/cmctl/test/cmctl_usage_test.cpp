// The command line itself: argument errors never reach the bus, help and version, and the bash
// completion and man page that are installed with cmctl.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "cmctl_fixture.h"

using namespace Quorel::Iot::Testing;

namespace {

// No bus at all: an argument error must be found before cmctl tries to connect (status 5).
const std::vector<std::string> kNoBus = {"CONFIG_MANAGER_BUS_ADDRESS=unix:path=/nonexistent/bus"};

using Offers = std::set<std::string>;

std::string read_file(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// The command names of "cmctl --help", from its "Commands:" section.
Offers listed_commands() {
    const CProcessResult help = run_cmctl({"--help"}, kNoBus);
    Offers names;
    bool in_section = false;
    for (const std::string& line : lines_of(help.out)) {
        if (line == "Commands:") {
            in_section = true;
        } else if (in_section && line.empty()) {
            break;
        } else if (in_section) {
            std::istringstream words(line);
            std::string name;
            words >> name;
            names.insert(name);
        }
    }
    return names;
}

// What the completion offers for each list of words, the last word being the one completed; one
// bash for all of them.
std::vector<Offers> completions(const std::vector<std::vector<std::string>>& cases,
                                const std::vector<std::string>& env = kNoBus) {
    std::string script = std::string("source '") + CMCTL_COMPLETION + "'\n";
    for (const auto& words : cases) {
        std::string array = std::string("'") + CMCTL_BINARY + "'";
        for (const std::string& word : words) array += " '" + word + "'";
        script += "COMP_WORDS=(" + array + "); COMP_CWORD=" + std::to_string(words.size()) +
                  "; _cmctl; printf '%s\\n' \"${COMPREPLY[@]}\"; echo '--end--'\n";
    }
    const CProcessResult r = run_process({"bash", "--norc", "--noprofile", "-c", script}, env);
    EXPECT_EQ(0, r.status) << r.err;
    std::vector<Offers> offers(1);
    for (const std::string& line : lines_of(r.out)) {
        if (line == "--end--") {
            offers.emplace_back();
        } else if (!line.empty()) {
            offers.back().insert(line);
        }
    }
    offers.pop_back();
    EXPECT_EQ(cases.size(), offers.size());
    offers.resize(cases.size());
    return offers;
}

// The option names a command's help lists, its own and the global ones.
Offers options_in_help(const std::string& help) {
    Offers names;
    for (const std::string& line : lines_of(help)) {
        if (line.compare(0, 4, "  --") != 0) continue;
        names.insert(line.substr(2, line.find_first_of(" [", 2) - 2));
    }
    return names;
}

TEST(ACmctlCommandLine, RejectsBadArgumentsWithStatusTwoBeforeUsingTheBus) {
    struct Case {
        std::vector<std::string> args;
        std::string message;
    };
    const std::vector<Case> cases = {
        {{}, "cmctl: no command given\nTry 'cmctl --help'.\n"},
        {{"frobnicate"}, "cmctl: unknown command 'frobnicate'\nTry 'cmctl --help'.\n"},
        {{"get", "--bogus", "k"}, "cmctl: get: unknown option --bogus\nTry 'cmctl get --help'.\n"},
        {{"get"}, "cmctl: get: wrong number of arguments; usage: cmctl get [--ts | --raw] KEY\n"},
        {{"get", "a", "b"}, "cmctl: get: wrong number of arguments; usage: cmctl get [--ts | --raw] KEY\n"},
        {{"get", "--ts=5", "k"}, "cmctl: get: --ts takes no value\n"},
        {{"get", "--ts", "--raw", "k"}, "cmctl: get: --ts and --raw cannot be combined\n"},
        {{"set", "--ts=soon", "k", "v"}, "cmctl: set: --ts=MS needs a positive number of milliseconds\n"},
        {{"--timeout", "0", "get", "k"}, "cmctl: get: --timeout needs a positive number of milliseconds\n"},
        {{"get", "k", "--timeout", "1s"}, "cmctl: get: --timeout needs a positive number of milliseconds\n"},
        {{"get", "k", "--timeout"}, "cmctl: get: --timeout needs a value\n"},
        {{"watch"}, "cmctl: watch: wrong number of arguments; usage: cmctl watch [--name NAME] KEY...\n"},
        {{"watch", "--name", "iot.bad-name", "k"}, "cmctl: watch: --name needs a well-known bus name"},
        {{"watch", "--name", ":1.42", "k"}, "cmctl: watch: --name needs a well-known bus name"},
        {{"own", "--name", "iot.x.9lives", "k"}, "cmctl: own: --name needs a well-known bus name"},
        {{"own", "--reject", "0", "k"}, "cmctl: own: --reject needs a non-zero code\n"},
        {{"own", "--accept", "--ask", "k"}, "cmctl: own: --accept cannot be combined with --reject or --ask\n"},
        {{"subscribe", "n", "k", "boss"}, "cmctl: subscribe: the role is 'owner' or 'observer', not 'boss'\n"},
        {{"help", "frobnicate"}, "cmctl: unknown command 'frobnicate'\n"},
    };
    for (const Case& c : cases) {
        std::string shown;
        for (const std::string& a : c.args) shown += a + " ";
        const CProcessResult r = run_cmctl(c.args, kNoBus);
        EXPECT_EQ(2, r.status) << shown << r.err;
        EXPECT_EQ("", r.out) << shown;
        EXPECT_EQ(0u, r.err.find(c.message)) << shown << "\n" << r.err;
        EXPECT_NE(std::string::npos, r.err.find("\nTry 'cmctl")) << shown << r.err;
    }
}

TEST(ACmctlCommandLine, ShowsHelpForItselfAndEveryCommandThatTheCompletionFollows) {
    CProcessResult r = run_cmctl({"--help"}, kNoBus);
    EXPECT_EQ(0, r.status);
    EXPECT_EQ(0u, r.out.find("Usage: cmctl [--address ADDRESS] [--timeout MS] COMMAND [ARGUMENTS]\n"));
    EXPECT_NE(std::string::npos, r.out.find("\nExit status:\n  0  success\n"));
    EXPECT_EQ("", r.err);
    const Offers commands = listed_commands();
    EXPECT_EQ((Offers{"get", "set", "unset", "dump", "keys", "watch", "own", "subscribe", "unsubscribe", "export",
                      "import", "help"}),
              commands);
    // (command whose help is expected, arguments)
    std::vector<std::pair<std::string, std::vector<std::string>>> asked = {{"own", {"help", "own"}},
                                                                           {"own", {"-h", "own", "extra", "words"}}};
    for (const std::string& command : commands) asked.push_back({command, {command, "--help"}});
    std::map<std::string, std::string> helps;
    for (const auto& question : asked) {
        const std::string& command = question.first;
        r = run_cmctl(question.second, kNoBus);
        EXPECT_EQ(0, r.status) << command;
        EXPECT_EQ(0u, r.out.find("Usage: cmctl " + command)) << r.out;
        EXPECT_NE(std::string::npos, r.out.find("Global options:\n  --address ADDRESS")) << r.out;
        helps[command] = r.out;
    }
    // The bash completion offers each command exactly the options its help lists.
    std::vector<std::vector<std::string>> option_cases;
    for (const auto& help : helps) option_cases.push_back({help.first, "--"});
    const std::vector<Offers> offers = completions(option_cases);
    size_t i = 0;
    for (const auto& help : helps) {
        Offers offered;
        for (const std::string& option : offers[i++]) offered.insert(option.substr(0, option.find('=')));
        EXPECT_EQ(options_in_help(help.second), offered) << help.first;
    }
    r = run_cmctl({"--version"}, kNoBus);
    EXPECT_EQ(0, r.status);
    EXPECT_EQ(0u, r.out.find("cmctl ")) << r.out;
    EXPECT_EQ(std::string::npos, r.out.find_first_not_of("0123456789.\n", 6)) << r.out;
    EXPECT_EQ(2, std::count(r.out.begin(), r.out.end(), '.')) << r.out;
}

TEST(ACmctlCommandLine, CompletesCommandsOptionsAndRoles) {
    const Offers commands = listed_commands();
    const std::vector<Offers> offers = completions({{""},
                                                    {"un"},
                                                    {"get", "--t"},
                                                    {"own", "--a"},
                                                    {"subscribe", "iot.x.y", "k", "o"},
                                                    {"help", ""},
                                                    {"--timeout", "5", "--address", "x", "ex"}});
    EXPECT_EQ(commands, offers[0]);
    EXPECT_EQ((Offers{"unset", "unsubscribe"}), offers[1]);
    EXPECT_EQ((Offers{"--ts", "--timeout"}), offers[2]);
    EXPECT_EQ((Offers{"--accept", "--address", "--ask"}), offers[3]);
    EXPECT_EQ((Offers{"owner", "observer"}), offers[4]);
    EXPECT_EQ(commands, offers[5]);
    EXPECT_EQ((Offers{"export"}), offers[6]);
}

TEST(ACmctlCommandLine, HasAManPageThatRendersCleanlyAndCoversEveryCommand) {
    const std::string page = read_file(CMCTL_MAN_PAGE);
    ASSERT_FALSE(page.empty());
    const CProcessResult warnings = run_process({"groff", "-man", "-Tutf8", "-ww", "-z", CMCTL_MAN_PAGE});
    EXPECT_EQ(0, warnings.status);
    EXPECT_EQ("", warnings.err);
    const CProcessResult text = run_process({"groff", "-man", "-Tascii", "-P", "-cbou", CMCTL_MAN_PAGE});
    ASSERT_EQ(0, text.status) << text.err;
    for (const std::string& command : listed_commands()) {
        const std::string entry = "\n       " + command;
        EXPECT_TRUE(text.out.find(entry + " ") != std::string::npos || text.out.find(entry + "\n") != std::string::npos)
            << command;
    }
    for (const char* heading : {"\nEXIT STATUS\n", "\nENVIRONMENT\n", "\nEXAMPLES\n"}) {
        EXPECT_NE(std::string::npos, text.out.find(heading)) << heading;
    }
    for (int status = 0; status <= 6; ++status) {
        EXPECT_NE(std::string::npos, text.out.find("\n       " + std::to_string(status) + "      ")) << status;
    }
}

using ACompletingCmctl = CCmctlTest;

TEST_F(ACompletingCmctl, CompletesKeysFromTheServiceOnTheBusItIsGiven) {
    const std::vector<std::string> env = {"CONFIG_MANAGER_BUS_ADDRESS=unix:path=/nonexistent/bus"};
    const std::vector<Offers> given = completions({{"--address", address(), "get", "gw_orlo"},
                                                   {"subscribe", "--address=" + address(), "iot.x.y", "gw_orlo_l"},
                                                   {"get", "gw_"}},
                                                  env);
    EXPECT_EQ((Offers{"gw_orlo_level", "gw_orlo_project"}), given[0]);
    EXPECT_EQ((Offers{"gw_orlo_level"}), given[1]);
    // Without a bus nothing is offered.
    EXPECT_EQ(Offers{}, given[2]);
    const std::vector<Offers> from_environment =
        completions({{"watch", "gw_orlo_level", "gw_v"}, {"set", "gw_orlo_level", "gw_"}}, environment());
    EXPECT_EQ((Offers{"gw_vexa_serialNumber"}), from_environment[0]);
    // A value is not completed from the key list.
    EXPECT_EQ(Offers{}, from_environment[1]);
}

}  // namespace
