// The service manager's notification protocol (systemd's sd_notify): readiness, the start of a
// shutdown, and the manager's own watchdog. Every call does nothing when the process was not
// started by a manager that listens (no NOTIFY_SOCKET), so the service runs the same by hand.
#ifndef QUOREL_PLATFORM_SERVICE_MANAGER_H
#define QUOREL_PLATFORM_SERVICE_MANAGER_H

#include <cstdint>

namespace Quorel {
namespace Iot {
namespace Platform {

// READY=1: the service answers on the bus.
void notify_ready();
// STOPPING=1: the orderly shutdown has begun.
void notify_stopping();
// How often WATCHDOG=1 is due: half the watchdog time-out the manager set for this process
// (WatchdogSec=), or 0 when it set none.
uint64_t watchdog_ping_interval_ms();
// WATCHDOG=1.
void notify_watchdog();

}  // namespace Platform
}  // namespace Iot
}  // namespace Quorel

#endif
