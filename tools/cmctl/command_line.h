// The command line: global options anywhere, one command, its own options and its arguments.
// Long options take their value as "--name=value" or as the next word; an optional value only as
// "--name=value". "--" ends the options; "-" and words such as "-5" are arguments.
#ifndef CMCTL_COMMAND_LINE_H
#define CMCTL_COMMAND_LINE_H

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace Quorel {
namespace Iot {
namespace Cmctl {

class CContext;
struct CInvocation;

enum class ArgKind { None, Required, Optional };

struct COption {
    const char* name;  // without the leading "--"
    ArgKind arg;
    const char* value_name;
    const char* help;
};

struct CCommand {
    const char* name;
    const char* synopsis;     // the usage line after "cmctl "
    const char* summary;      // one line for the program's help
    const char* description;  // the command's help
    std::vector<COption> options;
    size_t min_args;
    size_t max_args;
    int (*run)(CContext& context, const CInvocation& invocation);
};

struct CInvocation {
    const CCommand* command = nullptr;  // null when none was given
    std::vector<std::string> args;
    std::map<std::string, std::string> options;  // every option given, with its value ("" if none)

    bool has(const std::string& name) const { return options.count(name) != 0; }
    std::string value(const std::string& name) const;
};

// The options every command takes.
const std::vector<COption>& global_options();
// Every command, in the order the help lists them.
const std::vector<CCommand>& all_commands();
const CCommand* find_command(const std::string& name);

// kExitOk with invocation filled, or kExitUsage after the message. Argument counts are checked
// later, so that "--help" works with any.
int parse_command_line(int argc, char** argv, CInvocation& invocation);

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel

#endif
