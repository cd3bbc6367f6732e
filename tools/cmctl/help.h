// The help texts printed by --help and "cmctl help".
#ifndef CMCTL_HELP_H
#define CMCTL_HELP_H

#include "command_line.h"

namespace Quorel {
namespace Iot {
namespace Cmctl {

void print_program_help();
void print_command_help(const CCommand& command);

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel

#endif
