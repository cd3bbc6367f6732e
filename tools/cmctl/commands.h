// The commands, each run with the parsed invocation; each returns cmctl's exit status.
#ifndef CMCTL_COMMANDS_H
#define CMCTL_COMMANDS_H

#include "command_line.h"
#include "context.h"

namespace Quorel {
namespace Iot {
namespace Cmctl {

// The pattern for "every key": matches the empty key too.
constexpr char kEveryKey[] = "^";

int run_get(CContext& context, const CInvocation& invocation);
int run_dump(CContext& context, const CInvocation& invocation);
int run_keys(CContext& context, const CInvocation& invocation);
int run_set(CContext& context, const CInvocation& invocation);
int run_unset(CContext& context, const CInvocation& invocation);
int run_subscribe(CContext& context, const CInvocation& invocation);
int run_unsubscribe(CContext& context, const CInvocation& invocation);
int run_watch(CContext& context, const CInvocation& invocation);
int run_own(CContext& context, const CInvocation& invocation);
int run_export(CContext& context, const CInvocation& invocation);
int run_import(CContext& context, const CInvocation& invocation);
int run_help(CContext& context, const CInvocation& invocation);

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel

#endif
