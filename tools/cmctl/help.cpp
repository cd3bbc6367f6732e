#include "help.h"

#include <stdio.h>

#include "commands.h"
#include "failure.h"
#include "text_format.h"

namespace Quorel {
namespace Iot {
namespace Cmctl {

namespace {

std::string option_label(const COption& option) {
    std::string label = std::string("--") + option.name;
    if (option.arg == ArgKind::Required) label += std::string(" ") + option.value_name;
    if (option.arg == ArgKind::Optional) label += std::string("[=") + option.value_name + "]";
    return label;
}

void print_options(const char* heading, const std::vector<COption>& options) {
    if (options.empty()) return;
    std::vector<std::vector<std::string>> rows;
    for (const COption& option : options) rows.push_back({"  " + option_label(option), option.help});
    printf("\n%s\n%s", heading, format_table(rows).c_str());
}

}  // namespace

void print_program_help() {
    printf(
        "Usage: cmctl [--address ADDRESS] [--timeout MS] COMMAND [ARGUMENTS]\n"
        "       cmctl COMMAND --help\n"
        "       cmctl --version\n"
        "\n"
        "The command-line client of config-manager, the gateway's configuration service\n"
        "(iot.dmp.configmanager on the gateway's bus).\n"
        "\n"
        "Commands:\n");
    std::vector<std::vector<std::string>> rows;
    for (const CCommand& command : all_commands()) rows.push_back({std::string("  ") + command.name, command.summary});
    printf("%s", format_table(rows).c_str());
    print_options("Options:", global_options());
    printf(
        "\n"
        "Exit status:\n"
        "  0  success\n"
        "  1  any other failure (the service refused the value, a file could not be read, ...)\n"
        "  2  bad arguments\n"
        "  3  key not found, no key matches, or the name is not subscribed to the key\n"
        "  4  refused by the key's owner, or another service owns the key\n"
        "  5  the bus or the service cannot be reached, or the service stopped\n"
        "  6  no answer within the time-out\n");
}

void print_command_help(const CCommand& command) {
    printf("Usage: cmctl %s\n\n%s", command.synopsis, command.description);
    print_options("Options:", command.options);
    print_options("Global options:", global_options());
}

int run_help(CContext&, const CInvocation& invocation) {
    if (invocation.args.empty()) {
        print_program_help();
        return kExitOk;
    }
    const CCommand* command = find_command(invocation.args[0]);
    if (command == nullptr) return usage_error("", "unknown command '" + escape_control(invocation.args[0]) + "'");
    print_command_help(*command);
    return kExitOk;
}

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel
