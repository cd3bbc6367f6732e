#include "quorel/platform/timer.h"

#include <cstdio>

#include "TimerManager.h"

namespace Quorel {
namespace Iot {
namespace Platform {

namespace {
constexpr uint32_t kStopPollMs = 10;
}  // namespace

InternalTimer::InternalTimer(const char* name) {
    std::snprintf(m_name, sizeof(m_name), "%s", name != nullptr ? name : "");
}

CTimer::CTimer(const char* name) : m_timer(std::make_unique<InternalTimer>(name)) {}

CTimer::~CTimer() { stop(1); }

bool CTimer::start(uint32_t period_ms, uint32_t delay_ms, uint64_t argument, TimerCallback callback) {
    InternalTimer* timer = m_timer.get();
    CMutexGuard guard(timer->m_mutex);
    if (timer->m_status != TIMER_IDLE) return false;
    timer->m_status = TIMER_ARMED;
    timer->m_callback = callback;
    timer->m_period = period_ms;
    timer->m_argument = argument;
    timer->m_expiry = tick_ms() + delay_ms;
    timer->m_next = nullptr;
    return CTimerManager::instance()->insert(timer);
}

bool CTimer::stop(int wait) {
    InternalTimer* timer = m_timer.get();
    CMutexGuard guard(timer->m_mutex);
    if (timer->m_status == TIMER_IDLE) return false;
    timer->m_status = TIMER_CANCELLED;
    if (wait == 1) {
        // Not idle means started, so the manager exists already.
        CTimerManager* manager = CTimerManager::instance();
        while (timer->m_status != TIMER_IDLE) {
            if (manager->remove(timer)) break;
            // With a worker: it sets the status to idle once it has seen the cancel.
            timer->m_mutex.unlock();
            CThread::sleep_ms(kStopPollMs);
            timer->m_mutex.lock();
        }
        timer->m_status = TIMER_IDLE;
    }
    return true;
}

bool CTimer::is_active() const { return m_timer->m_status != TIMER_IDLE; }

bool CTimer::is_running() const { return m_timer->m_status == TIMER_RUNNING; }

void CTimer::set_period(uint32_t period_ms) {
    CMutexGuard guard(m_timer->m_mutex);
    m_timer->m_period = period_ms;
}

const char* CTimer::name() const { return m_timer->m_name; }

}  // namespace Platform
}  // namespace Iot
}  // namespace Quorel
