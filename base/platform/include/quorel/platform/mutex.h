// CMutex: a normal (non-recursive) POSIX mutex; CMutexGuard: its scoped lock.
// Locking a CMutex twice on one thread deadlocks; that is the contract, not a bug.
#ifndef QUOREL_PLATFORM_MUTEX_H
#define QUOREL_PLATFORM_MUTEX_H

#include <pthread.h>

#include <string>

#include "quorel/platform/thread_annotations.h"

namespace Quorel {
namespace Iot {
namespace Platform {

class CAPABILITY("mutex") CMutex {
public:
    explicit CMutex(const char* name = nullptr);
    ~CMutex();
    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;

    void lock() ACQUIRE();
    int unlock() RELEASE();
    bool try_lock() TRY_ACQUIRE(true);

    const std::string& name() const { return m_name; }

private:
    pthread_mutex_t m_mutex;
    std::string m_name;
};

class SCOPED_CAPABILITY CMutexGuard {
public:
    explicit CMutexGuard(CMutex& mutex) ACQUIRE(mutex) : m_mutex(&mutex) { m_mutex->lock(); }
    ~CMutexGuard() RELEASE() { m_mutex->unlock(); }
    CMutexGuard(const CMutexGuard&) = delete;
    CMutexGuard& operator=(const CMutexGuard&) = delete;

private:
    CMutex* m_mutex;
};

}  // namespace Platform
}  // namespace Iot
}  // namespace Quorel

#endif
