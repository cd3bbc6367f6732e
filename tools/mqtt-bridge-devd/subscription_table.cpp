#include "subscription_table.h"

#include <mosquitto.h>

#include <algorithm>

namespace {

bool has_wildcard(const std::string& filter) { return filter.find_first_of("+#") != std::string::npos; }

}  // namespace

bool CSubscriptionTable::contains(const std::string& filter, const std::string& subscriber) const {
    const auto& map = has_wildcard(filter) ? m_wildcard : m_exact;
    const auto it = map.find(filter);
    return it != map.end() && it->second.count(subscriber) > 0;
}

bool CSubscriptionTable::add(const std::string& filter, const std::string& subscriber) {
    if (contains(filter, subscriber)) return true;
    if (m_pairs >= m_max_pairs) return false;
    (has_wildcard(filter) ? m_wildcard : m_exact)[filter].insert(subscriber);
    ++m_pairs;
    return true;
}

std::vector<std::string> CSubscriptionTable::filters() const {
    std::vector<std::string> result;
    result.reserve(m_exact.size() + m_wildcard.size());
    for (const auto& entry : m_exact) result.push_back(entry.first);
    for (const auto& entry : m_wildcard) result.push_back(entry.first);
    return result;
}

void CSubscriptionTable::match(const std::string& topic, std::vector<std::string>& out) const {
    out.clear();
    const auto exact = m_exact.find(topic);
    if (exact != m_exact.end()) out.insert(out.end(), exact->second.begin(), exact->second.end());
    for (const auto& entry : m_wildcard) {
        bool matches = false;
        if (mosquitto_topic_matches_sub2(entry.first.data(), entry.first.size(), topic.data(), topic.size(),
                                         &matches) == MOSQ_ERR_SUCCESS &&
            matches) {
            out.insert(out.end(), entry.second.begin(), entry.second.end());
        }
    }
    std::sort(out.begin(), out.end());
    out.erase(std::unique(out.begin(), out.end()), out.end());
}
