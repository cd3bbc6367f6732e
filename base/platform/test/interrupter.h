// CInterrupter: keeps sending SIGUSR1 to one thread so that tests can prove a blocking call resumes
// after EINTR. The handler is installed without SA_RESTART, so every delivery really interrupts.
#ifndef QUOREL_PLATFORM_TEST_INTERRUPTER_H
#define QUOREL_PLATFORM_TEST_INTERRUPTER_H

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace Quorel {
namespace Iot {
namespace Testing {

class CInterrupter {
public:
    explicit CInterrupter(pthread_t target) {
        s_delivered.store(0);
        struct sigaction action = {};
        action.sa_handler = [](int) { s_delivered.fetch_add(1); };
        sigemptyset(&action.sa_mask);
        sigaction(SIGUSR1, &action, &m_previous);
        m_sender = std::thread([this, target] {
            while (!m_stop.load()) {
                pthread_kill(target, SIGUSR1);
                // Pacing between signals, not a wait for a result.
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
        });
    }
    // The target must still be alive when the interrupter goes.
    ~CInterrupter() {
        m_stop.store(true);
        m_sender.join();
        sigaction(SIGUSR1, &m_previous, nullptr);
    }
    CInterrupter(const CInterrupter&) = delete;
    CInterrupter& operator=(const CInterrupter&) = delete;

    static int delivered() { return s_delivered.load(); }

private:
    static inline std::atomic<int> s_delivered{0};
    struct sigaction m_previous = {};
    std::atomic<bool> m_stop{false};
    std::thread m_sender;
};

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel

#endif
