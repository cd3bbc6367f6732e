#include "TimerManager.h"

#include "../fatal.h"

namespace Quorel {
namespace Iot {
namespace Platform {

namespace {
constexpr const char kSource[] = "core-services/config-manager/base/platform/src/timer/TimerManager.cpp";
constexpr uint32_t kPollMs = 10;
}  // namespace

CTimerManager* CTimerManager::instance() {
    // Never destroyed: a CTimer with static storage may still stop its timer while the process
    // exits, after a destroyed manager would be gone. The magic static makes creation race-free.
    static CTimerManager* const s_instance = new CTimerManager(kWorkerCount);
    return s_instance;
}

CTimerManager::CTimerManager(uint32_t workers) : CThread("timer_manager", POLICY_NORMAL, 64, 0) {
    m_workers.reserve(workers);
    for (uint32_t i = 0; i < workers; ++i) {
        m_workers.push_back(std::make_unique<CTimerThread>(*this));
        m_workers.back()->start();
    }
    start();
}

CTimerManager::~CTimerManager() {
    // The manager's thread reads the list and the workers: it goes first. Workers may still
    // re-insert a periodic timer into the list after that; nobody polls it any more.
    stop();
    m_workers.clear();
}

bool CTimerManager::insert(InternalTimer* timer) {
    CMutexGuard guard(m_lock);
    QFATAL_ASSERT(1 == timer->m_status, kSource);
    InternalTimer** link = &m_head;
    while (*link != nullptr && (*link)->m_expiry <= timer->m_expiry) link = &(*link)->m_next;
    timer->m_next = *link;
    *link = timer;
    return true;
}

bool CTimerManager::remove(InternalTimer* timer) {
    CMutexGuard guard(m_lock);
    for (InternalTimer** link = &m_head; *link != nullptr; link = &(*link)->m_next) {
        if (*link == timer) {
            *link = timer->m_next;
            timer->m_next = nullptr;
            return true;
        }
    }
    return false;
}

void CTimerManager::threadProc() {
    while (is_running()) {
        sleep_ms(kPollMs);
        CMutexGuard guard(m_lock);
        dispatch_due(tick_ms());
    }
}

void CTimerManager::dispatch_due(uint64_t now) {
    while (m_head != nullptr && m_head->m_expiry <= now) {
        CTimerThread* worker = idle_worker();
        // Both workers busy: the timer stays at the head and is retried on the next pass.
        if (worker == nullptr) return;
        InternalTimer* timer = m_head;
        const uint32_t period = timer->m_period.load(std::memory_order_relaxed);
        if (period != 0) {
            // Skip the periods missed while late, staying on the timer's grid.
            const uint64_t missed = (now - timer->m_expiry) / period;
            timer->m_expiry += (missed + 1) * period;
        }
        m_head = timer->m_next;
        timer->m_next = nullptr;
        worker->hand_over(timer);
    }
}

CTimerThread* CTimerManager::idle_worker() const {
    for (const auto& worker : m_workers) {
        if (worker->is_idle()) return worker.get();
    }
    return nullptr;
}

}  // namespace Platform
}  // namespace Iot
}  // namespace Quorel
