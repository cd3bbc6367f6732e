#include "quorel/platform/mutex.h"

namespace Quorel {
namespace Iot {
namespace Platform {

CMutex::CMutex(const char* name) : m_name(name != nullptr ? name : "") {
    // Results are not examined: default attributes cannot fail to apply on Linux.
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutex_init(&m_mutex, &attr);
    pthread_mutexattr_destroy(&attr);
}

CMutex::~CMutex() { pthread_mutex_destroy(&m_mutex); }

void CMutex::lock() { pthread_mutex_lock(&m_mutex); }

int CMutex::unlock() { return pthread_mutex_unlock(&m_mutex); }

bool CMutex::try_lock() { return pthread_mutex_trylock(&m_mutex) == 0; }

}  // namespace Platform
}  // namespace Iot
}  // namespace Quorel
