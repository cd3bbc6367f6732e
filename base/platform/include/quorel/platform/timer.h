// CTimer: a one-shot or periodic timer whose callback runs on one of the two "timer_task" worker
// threads of the process-wide timer manager, which starts on the first start() of any timer.
//
// Resolution is the manager's 10 ms polling plus one clock tick of tick_ms(). A periodic timer
// whose callback overran fires once as soon as it is re-armed and then goes back to its grid
// (first expiry + n x period); missed periods are skipped, never caught up. While both workers
// are busy a due timer waits; it is never dropped.
//
// Any thread may call any operation, except that a callback must not stop(1) its own timer: that
// waits for the callback itself to end and never returns.
#ifndef QUOREL_PLATFORM_TIMER_H
#define QUOREL_PLATFORM_TIMER_H

#include <cstdint>
#include <memory>

#include "quorel/platform/delegate.h"

namespace Quorel {
namespace Iot {
namespace Platform {

// Called with the argument given to CTimer::start.
using TimerCallback = CDelegate<uint64_t>;

struct InternalTimer;

class CTimer {
public:
    // The name is kept for identification only; at most 127 characters of it are kept.
    explicit CTimer(const char* name);
    // Stops with wait, so a running callback has ended before the timer's record goes.
    ~CTimer();
    CTimer(const CTimer&) = delete;
    CTimer& operator=(const CTimer&) = delete;

    // Arms an idle timer: first due delay_ms from now, then every period_ms (0 = one-shot).
    // False, changing nothing, when the timer is not idle.
    bool start(uint32_t period_ms, uint32_t delay_ms, uint64_t argument, TimerCallback callback);
    // Cancels the timer; false if it was idle. wait == 1 returns only once the timer is idle
    // again (a running callback has ended). Otherwise a timer that is still armed stays active
    // until it comes due, when it is dropped without calling the callback.
    bool stop(int wait);
    bool is_active() const;
    // True while the callback runs.
    bool is_running() const;
    // Applies from the next time the timer comes due; 0 makes it one-shot.
    void set_period(uint32_t period_ms);
    const char* name() const;

private:
    std::unique_ptr<InternalTimer> m_timer;
};

}  // namespace Platform
}  // namespace Iot
}  // namespace Quorel

#endif
