// CPendingCalls: the bus calls whose answer waits for the broker's acknowledgement, by the
// message id libmosquitto gave the SUBSCRIBE or PUBLISH. Each is answered exactly once: by its
// acknowledgement, its deadline, or the end of the session, whichever comes first.
#ifndef MQTT_BRIDGE_DEVD_PENDING_CALLS_H
#define MQTT_BRIDGE_DEVD_PENDING_CALLS_H

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "bus_link.h"

struct CPendingCall {
    enum class Kind { Subscribe, Publish };

    Kind kind = Kind::Subscribe;
    CMessagePtr call;
    std::string topic;
    std::string subscriber;    // for a subscribe
    size_t payload_bytes = 0;  // for a publish
    std::chrono::steady_clock::time_point deadline;
};

class CPendingCalls {
public:
    using Clock = std::chrono::steady_clock;

    void add(int mid, CPendingCall call);
    // Removes the call waiting for mid into out; false when none does (already answered).
    bool take(int mid, CPendingCall& out);
    // Removes and returns the calls whose deadline is not after now.
    std::vector<CPendingCall> take_expired(Clock::time_point now);
    std::vector<CPendingCall> take_all();

    size_t size() const { return m_calls.size(); }
    size_t publish_bytes() const { return m_publish_bytes; }
    size_t subscribes() const { return m_subscribes; }
    // Time until the earliest deadline, or max() when nothing waits.
    Clock::duration until_next_deadline(Clock::time_point now);

private:
    void forget(const CPendingCall& call);

    std::map<int, CPendingCall> m_calls;
    // Deadlines in the order the calls came, which is their order too (one time-out for all);
    // entries whose call was answered already are skipped when they come up.
    std::deque<std::pair<Clock::time_point, int>> m_deadlines;
    size_t m_publish_bytes = 0;
    size_t m_subscribes = 0;
};

#endif
