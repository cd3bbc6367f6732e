#include "command_line.h"

#include "failure.h"
#include "text_format.h"

namespace Quorel {
namespace Iot {
namespace Cmctl {

namespace {

const COption* find_option(const std::vector<COption>& options, const std::string& name) {
    for (const COption& option : options) {
        if (name == option.name) return &option;
    }
    return nullptr;
}

}  // namespace

std::string CInvocation::value(const std::string& name) const {
    const auto found = options.find(name);
    return found == options.end() ? std::string() : found->second;
}

const std::vector<COption>& global_options() {
    static const std::vector<COption> options = {
        {"address", ArgKind::Required, "ADDRESS",
         "the bus (default: $CONFIG_MANAGER_BUS_ADDRESS, else the gateway's bus)"},
        {"timeout", ArgKind::Required, "MS", "how long to wait for each answer, in milliseconds (default 25000)"},
        {"help", ArgKind::None, nullptr, "show this help, or the command's (also -h)"},
        {"version", ArgKind::None, nullptr, "show cmctl's version"},
    };
    return options;
}

const CCommand* find_command(const std::string& name) {
    for (const CCommand& command : all_commands()) {
        if (name == command.name) return &command;
    }
    return nullptr;
}

int parse_command_line(int argc, char** argv, CInvocation& invocation) {
    bool options_ended = false;
    const std::string none;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        const std::string& command = invocation.command != nullptr ? invocation.command->name : none;
        if (!options_ended && word == "--") {
            options_ended = true;
            continue;
        }
        if (!options_ended && word == "-h") {
            invocation.options["help"] = "";
            continue;
        }
        if (!options_ended && word.size() > 2 && word.compare(0, 2, "--") == 0) {
            const size_t equals = word.find('=');
            const std::string name = word.substr(2, equals == std::string::npos ? std::string::npos : equals - 2);
            const COption* option =
                invocation.command != nullptr ? find_option(invocation.command->options, name) : nullptr;
            if (option == nullptr) option = find_option(global_options(), name);
            if (option == nullptr) return usage_error(command, "unknown option --" + name);
            if (equals != std::string::npos) {
                if (option->arg == ArgKind::None) return usage_error(command, "--" + name + " takes no value");
                invocation.options[name] = word.substr(equals + 1);
            } else if (option->arg == ArgKind::Required) {
                if (i + 1 == argc) return usage_error(command, "--" + name + " needs a value");
                invocation.options[name] = argv[++i];
            } else {
                invocation.options[name] = "";
            }
            continue;
        }
        if (invocation.command == nullptr) {
            invocation.command = find_command(word);
            if (invocation.command == nullptr) return usage_error("", "unknown command '" + escape_control(word) + "'");
            continue;
        }
        invocation.args.push_back(word);
    }
    return kExitOk;
}

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel
