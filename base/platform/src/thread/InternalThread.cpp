#include <poll.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "../fatal.h"
#include "quorel/platform/thread.h"

namespace Quorel {
namespace Iot {
namespace Platform {

namespace {
constexpr const char kSource[] = "core-services/config-manager/base/platform/src/thread/InternalThread.cpp";
constexpr uint32_t kStackGranule = 16384;
constexpr uint32_t kStopGraceMs = 3000;
constexpr uint32_t kStopPollMs = 30;
constexpr uint32_t kCancelWaitMs = 1000;
}  // namespace

uint32_t InternalThread::realtime_priority(uint32_t priority) {
    if (priority > 128) priority = 128;
    if (priority == 0) priority = 1;
    const uint32_t max = static_cast<uint32_t>(sched_get_priority_max(SCHED_FIFO));
    const uint32_t min = static_cast<uint32_t>(sched_get_priority_min(SCHED_FIFO));
    return max - ((max - min) * (128 - priority)) / 127;
}

uint32_t InternalThread::round_stack_size(uint32_t stack_size) {
    if (stack_size == 0) return 0;
    if (stack_size <= kStackGranule) return kStackGranule;
    return (stack_size + kStackGranule - 1) / kStackGranule * kStackGranule;
}

InternalThread::InternalThread(const std::string& name, uint32_t policy, uint32_t priority, uint32_t stack_size)
    : m_name(name), m_creator_tid(CThread::current_tid()), m_policy(policy), m_priority(priority), m_stack_size(0) {
    int ret = pthread_attr_init(&m_attr);
    QFATAL_ASSERT(0 == ret, kSource);
    if (m_policy != CThread::POLICY_REALTIME) {
        // The inherit-scheduler attribute stays at its default, so the thread in fact inherits
        // the creator's scheduling; the explicit policy only documents intent.
        ret = pthread_attr_setschedpolicy(&m_attr, SCHED_OTHER);
        QFATAL_ASSERT(0 == ret, kSource);
    } else {
        ret = pthread_attr_setinheritsched(&m_attr, PTHREAD_EXPLICIT_SCHED);
        QFATAL_ASSERT(0 == ret, kSource);
        ret = pthread_attr_setschedpolicy(&m_attr, SCHED_FIFO);
        QFATAL_ASSERT(0 == ret, kSource);
        m_priority = realtime_priority(priority);
        struct sched_param param = {};
        param.sched_priority = static_cast<int>(m_priority);
        ret = pthread_attr_setschedparam(&m_attr, &param);
        QFATAL_ASSERT(0 == ret, kSource);
    }
    m_stack_size = round_stack_size(stack_size);
    if (m_stack_size != 0) pthread_attr_setstacksize(&m_attr, m_stack_size);
}

InternalThread::~InternalThread() {
    kill();
    pthread_attr_destroy(&m_attr);
}

void* InternalThread::entry(void* arg) {
    InternalThread* self = static_cast<InternalThread*>(arg);
    self->m_tid.store(CThread::current_tid(), std::memory_order_release);
    char os_name[16];
    snprintf(os_name, sizeof(os_name), "%s", self->m_name.c_str());
    pthread_setname_np(pthread_self(), os_name);
    CThread* owner = self->m_owner.load(std::memory_order_acquire);
    if (owner != nullptr) owner->threadProc();
    self->m_thread.store(0, std::memory_order_relaxed);
    self->m_owner.store(nullptr, std::memory_order_relaxed);
    self->m_running.store(false, std::memory_order_release);
    self->m_started.store(false, std::memory_order_release);
    return nullptr;
}

bool InternalThread::start(CThread* owner) {
    if (m_started.load(std::memory_order_acquire) || owner == nullptr) return false;
    m_started.store(true, std::memory_order_release);
    m_running.store(true, std::memory_order_release);
    m_owner.store(owner, std::memory_order_release);
    pthread_t thread;
    int ret = pthread_create(&thread, &m_attr, &InternalThread::entry, this);
    QFATAL_ASSERT(0 == ret, kSource);
    m_thread.store(thread, std::memory_order_release);
    ret = pthread_detach(thread);
    QFATAL_ASSERT(0 == ret, kSource);
    return true;
}

bool InternalThread::request_stop() {
    const bool started = m_started.load(std::memory_order_acquire);
    if (started) m_running.store(false, std::memory_order_release);
    return started;
}

bool InternalThread::stop() {
    if (!m_started.load(std::memory_order_acquire)) return false;
    m_running.store(false, std::memory_order_release);
    if (m_tid.load(std::memory_order_acquire) != CThread::current_tid()) {
        for (uint32_t waited = 0; waited < kStopGraceMs && m_started.load(std::memory_order_acquire);
             waited += kStopPollMs) {
            CThread::sleep_ms(kStopPollMs);
        }
    }
    if (m_started.load(std::memory_order_acquire)) kill();
    return true;
}

bool InternalThread::kill() {
    if (!m_started.load(std::memory_order_acquire)) return false;
    if (m_tid.load(std::memory_order_acquire) != CThread::current_tid()) {
        pthread_t thread = m_thread.load(std::memory_order_acquire);
        if (thread != 0) {
            // A detached thread cannot be joined (joining one is undefined and trips the
            // sanitizers), so wait for the cancelled thread's task to disappear instead.
            pthread_cancel(thread);
            char path[64];
            snprintf(path, sizeof(path), "/proc/self/task/%d", m_tid.load(std::memory_order_acquire));
            for (uint32_t waited = 0; waited < kCancelWaitMs && access(path, F_OK) == 0; waited += 5) {
                CThread::sleep_ms(5);
            }
        }
    }
    m_tid.store(0, std::memory_order_release);
    m_thread.store(0, std::memory_order_release);
    m_owner.store(nullptr, std::memory_order_release);
    m_running.store(false, std::memory_order_release);
    m_started.store(false, std::memory_order_release);
    return true;
}

CThread::CThread(const std::string& name, policyType policy, uint32_t priority, uint32_t stack_size)
    : m_internal(new InternalThread(name, policy, priority, stack_size)) {}

CThread::~CThread() { delete m_internal; }

bool CThread::start() { return m_internal->start(this); }
void CThread::stop() { m_internal->stop(); }
void CThread::request_stop() { m_internal->request_stop(); }
bool CThread::kill() { return m_internal->kill(); }
int32_t CThread::get_tid() const { return m_internal->get_tid(); }
bool CThread::is_stopped() const { return !m_internal->is_started(); }
bool CThread::is_running() const { return m_internal->is_running(); }

int32_t CThread::current_tid() { return static_cast<int32_t>(syscall(SYS_gettid)); }

void CThread::sleep_ms(uint32_t ms) {
    if (ms == 0) {
        sched_yield();
        return;
    }
    const uint64_t begin = tick_ms();
    uint64_t remaining = ms;
    // poll() returns early on a signal; finish the sleep from the tick so callers get the full time.
    while (poll(nullptr, 0, static_cast<int>(remaining)) != 0) {
        const uint64_t elapsed = tick_ms() - begin;
        if (elapsed >= ms) return;
        remaining = ms - elapsed;
    }
}

}  // namespace Platform
}  // namespace Iot
}  // namespace Quorel
