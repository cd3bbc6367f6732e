// CTimerManager: the process-wide "timer_manager" thread. It keeps the armed timers in a list
// sorted by expiry (equal expiries in insertion order), polls it every 10 ms and hands each due
// timer to the first idle CTimerThread. CTimerThread: a "timer_task" worker that runs one timer's
// callback at a time and re-arms periodic timers.
#ifndef QUOREL_PLATFORM_SRC_TIMER_TIMERMANAGER_H
#define QUOREL_PLATFORM_SRC_TIMER_TIMERMANAGER_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "InternalTimer.h"
#include "quorel/platform/mutex.h"
#include "quorel/platform/semaphore.h"
#include "quorel/platform/thread.h"
#include "quorel/platform/thread_annotations.h"

namespace Quorel {
namespace Iot {
namespace Platform {

class CTimerManager;

class CTimerThread : public CThread {
public:
    explicit CTimerThread(CTimerManager& manager);
    // Wakes the worker and stops its thread; a running callback gets the usual grace period.
    ~CTimerThread() override;

    bool is_idle() const { return m_current.load(std::memory_order_acquire) == nullptr; }
    // Manager thread only, and only while is_idle().
    void hand_over(InternalTimer* timer);

protected:
    void threadProc() override;

private:
    void run(InternalTimer* timer);

    // Set at construction.
    CTimerManager& m_manager;

    // Written by the manager (hand_over) and cleared by this worker once it is done with the
    // timer; the manager reads it to find an idle worker.
    std::atomic<InternalTimer*> m_current{nullptr};
    // Posted once per hand-over (and once to wake the worker for its stop).
    CSemaphore m_wakeup{0};
};

class CTimerManager : public CThread {
public:
    static constexpr uint32_t kWorkerCount = 2;

    // The single instance, created with its threads by the first caller.
    static CTimerManager* instance();

    explicit CTimerManager(uint32_t workers);
    ~CTimerManager() override;

    // The timer must be armed; anything else is a broken invariant and stops the process.
    bool insert(InternalTimer* timer);
    // True if the timer was in the list (not yet handed to a worker).
    bool remove(InternalTimer* timer);

protected:
    void threadProc() override;

private:
    void dispatch_due(uint64_t now) REQUIRES(m_lock);
    CTimerThread* idle_worker() const;

    // Set at construction.
    std::vector<std::unique_ptr<CTimerThread>> m_workers;

    // Guarded by m_lock.
    CMutex m_lock;
    InternalTimer* m_head GUARDED_BY(m_lock) = nullptr;
};

}  // namespace Platform
}  // namespace Iot
}  // namespace Quorel

#endif
