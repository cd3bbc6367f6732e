// CThread: base of every long-lived thread of the process.
//
// Threads are detached at creation and stopped cooperatively: threadProc polls is_running() at
// least once per loop turn. stop() clears the flag and waits up to 3000 ms (30 ms steps) for
// threadProc to return, then cancels the thread. A subclass must stop its thread in its own
// destructor, before its own fields go; the base destructor runs too late for that.
//
// Failed POSIX set-up calls are fatal (assertion "0 == ret").
#ifndef QUOREL_PLATFORM_THREAD_H
#define QUOREL_PLATFORM_THREAD_H

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace Quorel {
namespace Iot {
namespace Platform {

// Monotonic milliseconds from the kernel's clock-tick counter (times/sysconf); never decreases.
uint64_t tick_ms();

class CThread;

// Holds the POSIX thread, its creation attributes and its run state.
class InternalThread {
public:
    InternalThread(const std::string& name, uint32_t policy, uint32_t priority, uint32_t stack_size);
    ~InternalThread();
    InternalThread(const InternalThread&) = delete;
    InternalThread& operator=(const InternalThread&) = delete;

    bool start(CThread* owner);
    bool stop();
    bool request_stop();
    bool kill();

    int32_t get_tid() const { return m_tid.load(std::memory_order_acquire); }
    bool is_started() const { return m_started.load(std::memory_order_acquire); }
    bool is_running() const { return m_running.load(std::memory_order_acquire); }

    const std::string& name() const { return m_name; }
    uint32_t priority() const { return m_priority; }
    uint32_t stack_size() const { return m_stack_size; }

    // The scheduler priority that a POLICY_REALTIME thread of this priority gets.
    static uint32_t realtime_priority(uint32_t priority);
    // 0 stays 0; otherwise rounded up to a multiple of 16384 (at least 16384).
    static uint32_t round_stack_size(uint32_t stack_size);

private:
    static void* entry(void* self);

    // Set at construction.
    std::string m_name;
    int32_t m_creator_tid;
    uint32_t m_policy;
    uint32_t m_priority;
    uint32_t m_stack_size;
    pthread_attr_t m_attr;

    // Written by the controlling thread and by the thread itself when it ends; read across
    // threads without a lock, hence atomic.
    std::atomic<int32_t> m_tid{0};
    std::atomic<pthread_t> m_thread{0};
    std::atomic<CThread*> m_owner{nullptr};
    std::atomic<bool> m_started{false};
    std::atomic<bool> m_running{false};
};

class CThread {
public:
    enum policyType { POLICY_REALTIME = 0, POLICY_NORMAL = 1 };

    CThread(const std::string& name, policyType policy, uint32_t priority, uint32_t stack_size);
    virtual ~CThread();
    CThread(const CThread&) = delete;
    CThread& operator=(const CThread&) = delete;

    bool start();
    void stop();
    void request_stop();
    bool kill();
    int32_t get_tid() const;
    bool is_stopped() const;
    bool is_running() const;

    static void sleep_ms(uint32_t ms);
    static int32_t current_tid();

    const InternalThread& internal() const { return *m_internal; }

protected:
    virtual void threadProc() = 0;

private:
    friend class InternalThread;
    InternalThread* m_internal;
};

}  // namespace Platform
}  // namespace Iot
}  // namespace Quorel

#endif
