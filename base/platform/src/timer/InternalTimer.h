// InternalTimer: the record behind a CTimer, shared by its handle, the manager's list and the
// worker that runs it.
//
// Status walk: idle -> armed (start; in the manager's list or handed to a worker) -> running
// (callback) -> armed again (periodic) or idle (one-shot). stop() moves any non-idle status to
// cancelled; the worker or stop(1) itself brings it back to idle.
#ifndef QUOREL_PLATFORM_SRC_TIMER_INTERNALTIMER_H
#define QUOREL_PLATFORM_SRC_TIMER_INTERNALTIMER_H

#include <atomic>
#include <cstdint>

#include "quorel/platform/mutex.h"
#include "quorel/platform/timer.h"

namespace Quorel {
namespace Iot {
namespace Platform {

enum TimerStatus : uint32_t {
    TIMER_IDLE = 0,
    TIMER_ARMED = 1,
    TIMER_RUNNING = 3,
    TIMER_CANCELLED = 4,
};

struct InternalTimer {
    static constexpr unsigned kNameSize = 128;

    explicit InternalTimer(const char* name);
    InternalTimer(const InternalTimer&) = delete;
    InternalTimer& operator=(const InternalTimer&) = delete;

    // Set at construction.
    char m_name[kNameSize];

    // Guarded by the manager's list mutex while the timer is in the list; written by start()
    // under m_mutex only while the timer is idle, hence in no list and with no worker.
    uint64_t m_expiry = 0;
    InternalTimer* m_next = nullptr;

    // Guarded by m_mutex. Lock order: m_mutex before the manager's list mutex.
    CMutex m_mutex;
    uint64_t m_argument GUARDED_BY(m_mutex) = 0;
    TimerCallback m_callback GUARDED_BY(m_mutex);
    // Written under m_mutex. m_status is read without it by is_active/is_running, m_period by
    // the manager, which holds only its list mutex while it advances expiries.
    std::atomic<uint32_t> m_status{TIMER_IDLE};
    std::atomic<uint32_t> m_period{0};
};

}  // namespace Platform
}  // namespace Iot
}  // namespace Quorel

#endif
