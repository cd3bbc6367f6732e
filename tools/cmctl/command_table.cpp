// The command table: names, usage, help texts, options and argument counts of every command.
// The man page (cmctl.1.in) and the bash completion (cmctl.bash) follow this table.
#include <cstdint>

#include "command_line.h"
#include "commands.h"

namespace Quorel {
namespace Iot {
namespace Cmctl {

const std::vector<CCommand>& all_commands() {
    static const std::vector<CCommand> commands = {
        {"get",
         "get [--ts | --raw] KEY",
         "print a key's value",
         "Prints the value of KEY as stored, followed by a newline; a value with newlines\n"
         "prints as it is. With --ts, a second line gives the time of the last set, in\n"
         "milliseconds since the Unix epoch and as local ISO-8601 time; only keys set with\n"
         "a timestamp have one.\n",
         {{"ts", ArgKind::None, nullptr, "also print the timestamp"},
          {"raw", ArgKind::None, nullptr, "print the value byte for byte, without the trailing newline"}},
         1,
         1,
         run_get},
        {"set",
         "set [--ts[=MS]] KEY VALUE|-",
         "set a key's value",
         "Sets KEY to VALUE. With '-' the value is read from standard input, byte for\n"
         "byte, a trailing newline included. An empty value deletes the key. If the key\n"
         "has an owner, the owner decides; a refusal ends with exit status 4 and the\n"
         "owner's code.\n",
         {{"ts", ArgKind::Optional, "MS",
           "store the value with a timestamp: MS milliseconds since the Unix epoch, or now"}},
         2,
         2,
         run_set},
        {"unset",
         "unset KEY",
         "delete a key",
         "Deletes KEY (the service deletes a key that is set to the empty value). If the\n"
         "key has an owner, the owner decides. Deleting a key that does not exist succeeds.\n",
         {},
         1,
         1,
         run_unset},
        {"dump",
         "dump [--json] [PATTERN]",
         "list keys, values and timestamps",
         "Lists every key that matches PATTERN with the local time of its timestamp ('-'\n"
         "for none) and its value, as an aligned table. Control characters are escaped\n"
         "(\\n, \\r, \\t, \\\\, \\xNN) so that every key keeps to one line. PATTERN is a POSIX\n"
         "basic regular expression, matched anywhere in the key; the default matches\n"
         "every key.\n",
         {{"json", ArgKind::None, nullptr, "print the service's own JSON answer instead"}},
         0,
         1,
         run_dump},
        {"keys",
         "keys [PATTERN]",
         "list key names",
         "Lists the names of the keys that match PATTERN (default: every key), one a line,\n"
         "control characters escaped as by dump.\n",
         {},
         0,
         1,
         run_keys},
        {"watch",
         "watch [--name NAME] KEY...",
         "print every change of keys as it happens",
         "Observes each KEY under a bus name of its own and prints one line for each\n"
         "change as it arrives: the local time of arrival, the key and the new value,\n"
         "escaped as by dump (an empty value: the key was deleted). Runs until SIGINT\n"
         "(Ctrl-C), SIGTERM or SIGHUP, then unsubscribes every key and leaves the bus, so\n"
         "nothing is left in the service's subscription table. The bus name is\n"
         "iot.tool.cmctl.w<PID> unless --name gives one.\n",
         {{"name", ArgKind::Required, "NAME", "the bus name to observe under"}},
         1,
         SIZE_MAX,
         run_watch},
        {"own",
         "own [--accept | --reject CODE | --ask] [--name NAME] KEY",
         "become the owner of a key and decide on its changes",
         "Becomes the owner of KEY under a bus name of its own: every set of the key is\n"
         "then put to cmctl before it is stored. --accept (the default) accepts every\n"
         "change; --reject CODE refuses every change with CODE, which the setter receives\n"
         "as its result. --ask prompts on standard error and reads one answer a line from\n"
         "standard input: 'y' or 'yes' accepts, a number refuses with that code, anything\n"
         "else refuses with the --reject CODE, or 1. Each decision is printed as a line:\n"
         "time, key, value, then 'accepted' or 'refused CODE'. Runs until SIGINT, SIGTERM\n"
         "or SIGHUP (with --ask also until standard input ends), then gives the key up\n"
         "and leaves the bus. The bus name is iot.tool.cmctl.o<PID> unless --name gives one.\n",
         {{"accept", ArgKind::None, nullptr, "accept every change (the default)"},
          {"reject", ArgKind::Required, "CODE", "refuse every change with CODE (a non-zero int32)"},
          {"ask", ArgKind::None, nullptr, "ask on the terminal for each change"},
          {"name", ArgKind::Required, "NAME", "the bus name to own the key under"}},
         1,
         1,
         run_own},
        {"subscribe",
         "subscribe NAME KEY owner|observer",
         "subscribe a bus name to a key",
         "Records NAME as the owner or an observer of KEY in the service's subscription\n"
         "table, which survives restarts. The service then calls notify_config on NAME at\n"
         "the object path made from it ('/' + NAME with every '.' turned into '/'), on the\n"
         "interface NAME. A key has at most one owner.\n",
         {},
         3,
         3,
         run_subscribe},
        {"unsubscribe",
         "unsubscribe NAME KEY|'*'",
         "remove a bus name's subscription",
         "Removes NAME's subscription to KEY; with '*', every subscription of NAME.\n",
         {},
         2,
         2,
         run_unsubscribe},
        {"export",
         "export [PATTERN]",
         "write keys as a default-configuration document",
         "Writes the keys that match PATTERN (default: every key) to standard output as a\n"
         "default-configuration document, the layout config-manager reads at start:\n"
         "{\"config\": {KEY: base64 of the value}, \"metadata\": {}}. A value with a\n"
         "timestamp is written the way the service stores it, {\"data\":VALUE,\"ts\":MS}.\n",
         {},
         0,
         1,
         run_export},
        {"import",
         "import [--dry-run] FILE|-",
         "set every key of a default-configuration document",
         "Sets every key of the document in FILE ('-': standard input) whose value or\n"
         "timestamp differs from the service's, keeping the document's timestamps; an\n"
         "empty value deletes its key. Keys the document does not name are left alone.\n"
         "The whole document is checked before anything is set. A key that the service\n"
         "or its owner refuses is reported and the others are still set; the exit status\n"
         "is that of the first failure.\n",
         {{"dry-run", ArgKind::None, nullptr, "print what would change, and change nothing"}},
         1,
         1,
         run_import},
        {"help",
         "help [COMMAND]",
         "show the help of cmctl or of a command",
         "Shows the help of COMMAND.\n",
         {},
         0,
         1,
         run_help},
    };
    return commands;
}

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel
