#include <sys/times.h>
#include <unistd.h>

#include <atomic>

#include "quorel/platform/thread.h"

namespace Quorel {
namespace Iot {
namespace Platform {

namespace {
// Last tick seen, with the 32-bit counter's wraps carried into the upper half. Racing updaters can
// only ever store a value that is not below the one they read, so a relaxed atomic suffices.
std::atomic<uint64_t> g_last_tick{0};
}  // namespace

uint64_t tick_ms() {
    struct tms buf;
    const uint32_t low = static_cast<uint32_t>(times(&buf));
    uint64_t last = g_last_tick.load(std::memory_order_relaxed);
    if (low != 0xFFFFFFFFu && low != static_cast<uint32_t>(last)) {
        uint64_t value = (last & 0xFFFFFFFF00000000ull) | low;
        while (value < last) value += 0x100000000ull;
        while (value > last && !g_last_tick.compare_exchange_weak(last, value, std::memory_order_relaxed)) {
        }
        last = g_last_tick.load(std::memory_order_relaxed);
    }
    static const long ticks_per_second = sysconf(_SC_CLK_TCK);
    return last * static_cast<uint64_t>(1000 / ticks_per_second);
}

}  // namespace Platform
}  // namespace Iot
}  // namespace Quorel
