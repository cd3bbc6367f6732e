#include "bridge_loop.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <time.h>

#include <algorithm>
#include <chrono>

#include "bridge_limits.h"
#include "quorel/log/log.h"

namespace {

constexpr const char kLogFile[] = "core-services/config-manager/tools/mqtt-bridge-devd/bridge_loop";

// Calls handled per turn before the broker gets its turn, so a flood of calls cannot stall
// forwarding (nor the other way round: the broker's turn is one message).
constexpr int kCallsPerTurn = 64;

timespec to_timespec(std::chrono::steady_clock::duration wait) {
    const auto clamped = std::max(std::chrono::steady_clock::duration::zero(), wait);
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(clamped).count();
    timespec result{};
    result.tv_sec = static_cast<time_t>(ns / 1000000000);
    result.tv_nsec = static_cast<long>(ns % 1000000000);
    return result;
}

}  // namespace

bool run_bridge_loop(CBusLink& bus, CMqttLink& mqtt, CBridgeService& service, const volatile sig_atomic_t& stop,
                     const sigset_t& wait_mask) {
    while (stop == 0) {
        const bool more_calls = bus.dispatch(kCallsPerTurn);
        if (!bus.connected()) {
            QLOG(3, "run_bridge_loop, lost the bus");
            return false;
        }
        const auto now = std::chrono::steady_clock::now();
        auto wait = std::min(mqtt.service(now), service.expire(now));
        if (more_calls) wait = std::chrono::steady_clock::duration::zero();

        pollfd entries[2] = {bus.poll_entry(), mqtt.poll_entry(bus.backlog() < BridgeLimits::kMaxBusBacklogBytes)};
        const timespec timeout = to_timespec(wait);
        const int ready = ppoll(entries, 2, &timeout, &wait_mask);
        if (ready < 0) {
            if (errno == EINTR) continue;
            QLOG(3, "run_bridge_loop, poll failed: %s", strerror(errno));
            return false;
        }
        if (entries[0].revents != 0) bus.handle(entries[0].revents);
        if (entries[1].fd >= 0 && entries[1].revents != 0) mqtt.handle(entries[1].revents);
    }
    return true;
}
