// The small services the benchmark runs beside config-manager, each in a process of its own
// (the benchmark executable started again in a responder mode):
// - the echo service answers "get_config" with (0, a fixed value) and "set_config" with 0 and
//   does no other work: the fastest any service on this bus can answer, the baseline every figure
//   is compared with. Given observer names, it first sends each a no-reply "notify_config" for a
//   "set_config", as the service does for a key with observers: the bus's own cost of that;
// - an observer answers "notify_config" with 0 and counts the notifications, which it reports
//   through "notify_count".
#ifndef QUOREL_BENCH_BENCH_RESPONDER_H
#define QUOREL_BENCH_BENCH_RESPONDER_H

#include <string>

namespace Quorel {
namespace Iot {
namespace Bench {

extern const char kEchoMode[];
extern const char kObserverMode[];

// argv after the program name: mode, bus address, bus name, [echo value [observer names]]. Returns the exit
// status: 0 when the bus went away, 1 when the service could not start.
int run_responder(int argc, char** argv);

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel

#endif
