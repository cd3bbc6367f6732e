// Waiting on a condition with a deadline: tests never sleep for a fixed time.
#ifndef QUOREL_TESTSUPPORT_WAIT_H
#define QUOREL_TESTSUPPORT_WAIT_H

#include <chrono>
#include <thread>

namespace Quorel {
namespace Iot {
namespace Testing {

template <typename Pred>
bool wait_until(Pred pred, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline) return pred();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

inline long long elapsed_ms(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - since).count();
}

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel

#endif
