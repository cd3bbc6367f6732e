#include "quorel/platform/semaphore.h"

#include <errno.h>
#include <time.h>

#include "../fatal.h"
#include "quorel/platform/thread.h"

namespace Quorel {
namespace Iot {
namespace Platform {

namespace {
constexpr const char kSource[] = "core-services/config-manager/base/platform/src/lock/semaphore.cpp";
constexpr uint32_t kPollStepMs = 50;
}  // namespace

CSemaphore::CSemaphore(uint32_t initial) {
    int ret = sem_init(&m_sem, 0, initial);
    QFATAL_ASSERT(0 == ret, kSource);
}

CSemaphore::~CSemaphore() {
    int ret = sem_destroy(&m_sem);
    QFATAL_ASSERT(0 == ret, kSource);
}

int CSemaphore::post() { return sem_post(&m_sem); }

bool CSemaphore::try_wait() { return sem_trywait(&m_sem) == 0; }

bool CSemaphore::wait(uint32_t timeout_ms) {
    if (timeout_ms == 0) {
        int ret;
        do {
            ret = sem_wait(&m_sem);
        } while (ret != 0 && errno == EINTR);
        return ret == 0;
    }
    // Polling instead of sem_timedwait keeps waits immune to wall-clock jumps; the final sleep
    // after the last failed attempt is part of the contract (a post during it is not taken).
    const uint64_t attempts = (static_cast<uint64_t>(timeout_ms) + kPollStepMs - 1) / kPollStepMs;
    for (uint64_t i = 0; i < attempts; ++i) {
        if (sem_trywait(&m_sem) == 0) return true;
        CThread::sleep_ms(kPollStepMs);
    }
    return false;
}

bool CSemaphore::wait_for(uint32_t timeout_ms) {
    timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += static_cast<time_t>(timeout_ms / 1000);
    deadline.tv_nsec += static_cast<long>(timeout_ms % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    int ret;
    do {
        ret = sem_clockwait(&m_sem, CLOCK_MONOTONIC, &deadline);
    } while (ret != 0 && errno == EINTR);
    return ret == 0;
}

}  // namespace Platform
}  // namespace Iot
}  // namespace Quorel
