#include "pending_calls.h"

void CPendingCalls::add(int mid, CPendingCall call) {
    if (call.kind == CPendingCall::Kind::Publish) m_publish_bytes += call.payload_bytes;
    if (call.kind == CPendingCall::Kind::Subscribe) ++m_subscribes;
    m_deadlines.emplace_back(call.deadline, mid);
    m_calls[mid] = std::move(call);
}

void CPendingCalls::forget(const CPendingCall& call) {
    if (call.kind == CPendingCall::Kind::Publish) m_publish_bytes -= call.payload_bytes;
    if (call.kind == CPendingCall::Kind::Subscribe) --m_subscribes;
}

bool CPendingCalls::take(int mid, CPendingCall& out) {
    const auto it = m_calls.find(mid);
    if (it == m_calls.end()) return false;
    out = std::move(it->second);
    m_calls.erase(it);
    forget(out);
    return true;
}

std::vector<CPendingCall> CPendingCalls::take_expired(Clock::time_point now) {
    std::vector<CPendingCall> expired;
    while (!m_deadlines.empty() && m_deadlines.front().first <= now) {
        const auto it = m_calls.find(m_deadlines.front().second);
        // A message id is reused only after its call was answered: match the deadline too.
        if (it != m_calls.end() && it->second.deadline == m_deadlines.front().first) {
            forget(it->second);
            expired.push_back(std::move(it->second));
            m_calls.erase(it);
        }
        m_deadlines.pop_front();
    }
    return expired;
}

std::vector<CPendingCall> CPendingCalls::take_all() {
    std::vector<CPendingCall> all;
    all.reserve(m_calls.size());
    for (auto& entry : m_calls) all.push_back(std::move(entry.second));
    m_calls.clear();
    m_deadlines.clear();
    m_publish_bytes = 0;
    m_subscribes = 0;
    return all;
}

CPendingCalls::Clock::duration CPendingCalls::until_next_deadline(Clock::time_point now) {
    while (!m_deadlines.empty()) {
        const auto it = m_calls.find(m_deadlines.front().second);
        if (it != m_calls.end() && it->second.deadline == m_deadlines.front().first) {
            return m_deadlines.front().first > now ? m_deadlines.front().first - now : Clock::duration::zero();
        }
        m_deadlines.pop_front();  // answered already
    }
    return Clock::duration::max();
}
