// CSemaphore: process-private counting semaphore.
//
// The timed wait polls sem_trywait in 50 ms steps on purpose: ceil(timeout / 50) attempts, each
// followed by a 50 ms sleep when it fails, so wait(120) gives up after about 150 ms. Every
// synchronous bus call that waited with it inherited this granularity; wait_for is the wait that
// wakes as soon as the count is posted.
#ifndef QUOREL_PLATFORM_SEMAPHORE_H
#define QUOREL_PLATFORM_SEMAPHORE_H

#include <semaphore.h>

#include <cstdint>

namespace Quorel {
namespace Iot {
namespace Platform {

class CSemaphore {
public:
    explicit CSemaphore(uint32_t initial = 0);
    ~CSemaphore();
    CSemaphore(const CSemaphore&) = delete;
    CSemaphore& operator=(const CSemaphore&) = delete;

    // Async-signal-safe: the SIGTERM handler posts the process exit semaphore.
    int post();
    bool try_wait();
    // timeout_ms 0 waits for ever (retrying after EINTR); true when a count was taken.
    bool wait(uint32_t timeout_ms);
    // Waits up to timeout_ms on the monotonic clock and returns as soon as a count is posted;
    // true when one was taken. Unlike wait, 0 does not wait at all.
    bool wait_for(uint32_t timeout_ms);

private:
    sem_t m_sem;
};

}  // namespace Platform
}  // namespace Iot
}  // namespace Quorel

#endif
