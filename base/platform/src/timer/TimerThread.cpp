#include "TimerManager.h"

namespace Quorel {
namespace Iot {
namespace Platform {

CTimerThread::CTimerThread(CTimerManager& manager) : CThread("timer_task", POLICY_NORMAL, 64, 0), m_manager(manager) {}

CTimerThread::~CTimerThread() {
    request_stop();
    m_wakeup.post();
    stop();
}

void CTimerThread::hand_over(InternalTimer* timer) {
    m_current.store(timer, std::memory_order_release);
    m_wakeup.post();
}

void CTimerThread::threadProc() {
    while (is_running()) {
        m_wakeup.wait(0);
        InternalTimer* timer = m_current.load(std::memory_order_acquire);
        if (timer == nullptr) continue;
        run(timer);
        // Only now may the manager hand this worker another timer.
        m_current.store(nullptr, std::memory_order_release);
    }
}

void CTimerThread::run(InternalTimer* timer) {
    CMutexGuard guard(timer->m_mutex);
    if (timer->m_status == TIMER_ARMED) {
        timer->m_status = TIMER_RUNNING;
        const TimerCallback callback = timer->m_callback;
        const uint64_t argument = timer->m_argument;
        // The callback runs without the lock so that it may query or re-arm its own timer, and
        // so that stop() can mark it cancelled meanwhile.
        timer->m_mutex.unlock();
        callback(argument);
        timer->m_mutex.lock();
    }
    if (timer->m_status != TIMER_CANCELLED && timer->m_period != 0) {
        timer->m_status = TIMER_ARMED;
        m_manager.insert(timer);
    } else {
        timer->m_status = TIMER_IDLE;
    }
}

}  // namespace Platform
}  // namespace Iot
}  // namespace Quorel
