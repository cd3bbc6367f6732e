// CSubscriptionTable: which bus names want the messages of which MQTT topic filters. Entries are
// kept for the life of the bridge: the adapter subscribes once and never again, so the bridge
// must renew them on every new broker session itself.
#ifndef MQTT_BRIDGE_DEVD_SUBSCRIPTION_TABLE_H
#define MQTT_BRIDGE_DEVD_SUBSCRIPTION_TABLE_H

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <vector>

class CSubscriptionTable {
public:
    explicit CSubscriptionTable(size_t max_pairs) : m_max_pairs(max_pairs) {}

    bool contains(const std::string& filter, const std::string& subscriber) const;
    // False when the pair is new and the table already holds max_pairs pairs.
    bool add(const std::string& filter, const std::string& subscriber);
    size_t size() const { return m_pairs; }
    size_t max_size() const { return m_max_pairs; }

    // Every filter once, for subscribing again on a new session.
    std::vector<std::string> filters() const;
    // The subscribers of every filter that topic matches (+ and # as MQTT defines them), each
    // name once, in name order. out is cleared first.
    void match(const std::string& topic, std::vector<std::string>& out) const;

private:
    using Subscribers = std::set<std::string>;

    const size_t m_max_pairs;
    size_t m_pairs = 0;
    // Filters without wildcards are looked up; only the others are tried one by one.
    std::map<std::string, Subscribers> m_exact;
    std::map<std::string, Subscribers> m_wildcard;
};

#endif
