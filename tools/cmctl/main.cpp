// cmctl: the command-line client of config-manager. One short command per task, readable output
// on standard output, one-line messages on standard error, and an exit status scripts can test.
//
//   cmctl [--address ADDRESS] [--timeout MS] COMMAND [ARGUMENTS]
//
// The bus address defaults to CONFIG_MANAGER_BUS_ADDRESS, else the gateway's bus, as for the
// service itself. "cmctl --help" lists the commands and the exit statuses.
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <climits>
#include <string>

#include "arguments.h"
#include "command_line.h"
#include "commands.h"
#include "context.h"
#include "failure.h"
#include "help.h"

namespace {

using namespace Quorel::Iot::Cmctl;

constexpr int kDefaultTimeoutMs = 25000;

// Output that did not reach its reader (a full disk, a closed pipe) is a failure too.
int finish_output(int status) {
    if (fflush(stdout) != 0 || ferror(stdout) != 0) {
        if (errno != EPIPE) print_error(std::string("standard output: ") + strerror(errno));
        return status == kExitOk ? kExitFailure : status;
    }
    return status;
}

int run(int argc, char** argv) {
    CInvocation invocation;
    const int parsed = parse_command_line(argc, argv, invocation);
    if (parsed != kExitOk) return parsed;
    if (invocation.has("version")) {
        printf("cmctl %s\n", CMCTL_VERSION);
        return kExitOk;
    }
    if (invocation.has("help")) {
        if (invocation.command != nullptr) {
            print_command_help(*invocation.command);
        } else {
            print_program_help();
        }
        return kExitOk;
    }
    if (invocation.command == nullptr) return usage_error("", "no command given");
    const CCommand& command = *invocation.command;
    if (invocation.args.size() < command.min_args || invocation.args.size() > command.max_args) {
        return usage_error(command.name, std::string("wrong number of arguments; usage: cmctl ") + command.synopsis);
    }
    int32_t timeout_ms = kDefaultTimeoutMs;
    if (invocation.has("timeout") && (!parse_int32(invocation.value("timeout"), timeout_ms) || timeout_ms <= 0)) {
        return usage_error(command.name, "--timeout needs a positive number of milliseconds");
    }
    const std::string address =
        invocation.has("address") ? invocation.value("address") : Quorel::Iot::Keychain::bus_address();
    if (address.empty()) return usage_error(command.name, "--address needs a bus address");
    CContext context(address, timeout_ms);
    return command.run(context, invocation);
}

}  // namespace

int main(int argc, char** argv) { return finish_output(run(argc, argv)); }
