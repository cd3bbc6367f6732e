// Counts the keychain writes ("kcAddKey" calls) that cross the bus, by turning a connection of
// its own into a bus monitor. The counting thread owns that connection; the counters are read
// from the benchmark's main thread.
#ifndef QUOREL_BENCH_BENCH_MONITOR_H
#define QUOREL_BENCH_BENCH_MONITOR_H

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>

#include "bench_bus.h"

namespace Quorel {
namespace Iot {
namespace Bench {

class CKeychainWriteCounter {
public:
    CKeychainWriteCounter() = default;
    ~CKeychainWriteCounter() { stop(); }
    CKeychainWriteCounter(const CKeychainWriteCounter&) = delete;
    CKeychainWriteCounter& operator=(const CKeychainWriteCounter&) = delete;

    bool start(const std::string& address, std::string& error);
    void stop();

    uint64_t writes() const { return m_writes.load(std::memory_order_acquire); }
    // Sum of the data lengths the writes announced (the whole document each time).
    uint64_t bytes() const { return m_bytes.load(std::memory_order_acquire); }
    // Waits until no write has been seen for quiet (the store's saver wakes at least once a
    // second), or until timeout; false on timeout.
    bool wait_quiet(std::chrono::milliseconds quiet, std::chrono::milliseconds timeout) const;

private:
    void loop();

    // Set by start(), then used by the counting thread only.
    CConnection m_connection;
    std::thread m_thread;

    // Written by the counting thread, read by the main thread.
    std::atomic<bool> m_running{false};
    std::atomic<uint64_t> m_writes{0};
    std::atomic<uint64_t> m_bytes{0};
    std::atomic<int64_t> m_last_write_ns{0};
};

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel

#endif
