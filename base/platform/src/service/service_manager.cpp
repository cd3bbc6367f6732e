#include "quorel/platform/service_manager.h"

#include <systemd/sd-daemon.h>

namespace Quorel {
namespace Iot {
namespace Platform {

void notify_ready() { sd_notify(0, "READY=1"); }

void notify_stopping() { sd_notify(0, "STOPPING=1"); }

uint64_t watchdog_ping_interval_ms() {
    uint64_t usec = 0;
    // The environment is kept (unset_environment 0): the adapter's handle asks again.
    if (sd_watchdog_enabled(0, &usec) <= 0) return 0;
    // Pinging at half the time-out is what the manager's documentation asks; 1 ms at the least.
    const uint64_t interval = usec / 2000;
    return interval > 0 ? interval : 1;
}

void notify_watchdog() { sd_notify(0, "WATCHDOG=1"); }

}  // namespace Platform
}  // namespace Iot
}  // namespace Quorel
