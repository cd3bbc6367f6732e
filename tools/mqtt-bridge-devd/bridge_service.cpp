#include "bridge_service.h"

#include <mosquitto.h>
#include <string.h>

#include "bridge_limits.h"
#include "bridge_reply.h"
#include "quorel/log/log.h"

namespace {

constexpr const char kLogFile[] = "core-services/config-manager/tools/mqtt-bridge-devd/bridge_service";

constexpr char kSubscribe[] = "subscribe";
constexpr char kPublish[] = "publish";
constexpr char kArguments[] = "ssi";

// A caller's text as quoted in a reply or log line: long enough to recognise, short enough that a
// caller cannot make the bridge echo megabytes.
std::string quoted(const std::string& text) {
    constexpr size_t kShown = 80;
    return "'" + (text.size() <= kShown ? text : text.substr(0, kShown) + "...") + "'";
}

// Why topic cannot be subscribed (filter true) or published to; empty when it can. libmosquitto's
// own UTF-8 check is stricter than the bus's (no control characters): the broker drops a client
// that sends a topic failing it, which would end every other subscriber's session too.
std::string topic_problem(const std::string& topic, bool filter) {
    if (topic.empty()) return "the topic is empty";
    if (topic.size() > BridgeLimits::kMaxTopicBytes) {
        return "the topic is longer than " + std::to_string(BridgeLimits::kMaxTopicBytes) + " bytes";
    }
    if (mosquitto_validate_utf8(topic.data(), static_cast<int>(topic.size())) != MOSQ_ERR_SUCCESS) {
        return "the topic holds characters MQTT does not allow";
    }
    // A shared subscription hands each message to one of its members only, so the subscriber would
    // see an arbitrary share of them; mosquitto takes "$share/name" alone as a plain topic.
    if (filter && topic.compare(0, 7, "$share/") == 0) return "shared subscriptions ($share/...) are not relayed";
    if (filter && mosquitto_sub_topic_check2(topic.data(), topic.size()) != MOSQ_ERR_SUCCESS) {
        return quoted(topic) + " is not a valid topic filter (+ and # must fill a whole level, # be last)";
    }
    if (!filter && mosquitto_pub_topic_check2(topic.data(), topic.size()) != MOSQ_ERR_SUCCESS) {
        return quoted(topic) + " is not a topic one can publish to (no + or #)";
    }
    return std::string();
}

// The reply code for libmosquitto's refusal of a SUBSCRIBE or PUBLISH we had checked already.
int code_of(int rc) {
    switch (rc) {
        case MOSQ_ERR_NO_CONN:
            return ReplyCode::kNotConnected;
        case MOSQ_ERR_PAYLOAD_SIZE:
        case MOSQ_ERR_OVERSIZE_PACKET:
            return ReplyCode::kPayloadTooLarge;
        case MOSQ_ERR_INVAL:
        case MOSQ_ERR_MALFORMED_UTF8:
            return ReplyCode::kInvalidTopic;
        default:
            return ReplyCode::kInternal;
    }
}

}  // namespace

CBridgeService::CBridgeService(CBusLink& bus, std::chrono::milliseconds ack_timeout, size_t max_subscriptions)
    : m_bus(bus), m_ack_timeout(ack_timeout), m_table(max_subscriptions) {}

bool CBridgeService::handle(DBusMessage* message) {
    if (dbus_message_get_type(message) != DBUS_MESSAGE_TYPE_METHOD_CALL) return false;
    const char* interface = dbus_message_get_interface(message);
    const char* member = dbus_message_get_member(message);
    // Ping and GetMachineId: libdbus's own answer is the right one.
    if (interface != nullptr && strcmp(interface, DBUS_INTERFACE_PEER) == 0) return false;
    if (strcmp(dbus_message_get_path(message), kBridgePath) != 0) {
        m_bus.reply_error(message, DBUS_ERROR_UNKNOWN_OBJECT,
                          std::string("no object at ") + dbus_message_get_path(message) + ", only at " + kBridgePath);
        return true;
    }
    if (interface != nullptr && strcmp(interface, kBridgeInterface) != 0) {
        m_bus.reply_error(message, DBUS_ERROR_UNKNOWN_INTERFACE,
                          std::string("no interface ") + interface + ", only " + kBridgeInterface);
        return true;
    }
    const bool subscribe = strcmp(member, kSubscribe) == 0;
    if (!subscribe && strcmp(member, kPublish) != 0) {
        m_bus.reply_error(message, DBUS_ERROR_UNKNOWN_METHOD,
                          std::string("no method ") + member + ", only subscribe and publish");
        return true;
    }
    if (!dbus_message_has_signature(message, kArguments)) {
        m_bus.reply_error(message, DBUS_ERROR_INVALID_ARGS,
                          std::string(member) + " takes (s topic, s " + (subscribe ? "subscriber" : "payload") +
                              ", i 0), not (" + dbus_message_get_signature(message) + ")");
        return true;
    }
    if (subscribe) {
        handle_subscribe(message);
    } else {
        handle_publish(message);
    }
    return true;
}

void CBridgeService::answer(DBusMessage* call, int code, const std::string& message) {
    if (code != ReplyCode::kOk)
        QLOG(2, "answer, %s: code %d, %s", dbus_message_get_member(call), code, message.c_str());
    if (!m_bus.reply_text(call, reply_text(code, message))) QLOG(3, "answer, cannot queue the reply");
}

void CBridgeService::handle_subscribe(DBusMessage* call) {
    const char* topic_text = nullptr;
    const char* subscriber_text = nullptr;
    dbus_int32_t reserved = 0;  // always 0 from the adapter, and meaningless here
    dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &topic_text, DBUS_TYPE_STRING, &subscriber_text,
                          DBUS_TYPE_INT32, &reserved, DBUS_TYPE_INVALID);
    const std::string topic = topic_text != nullptr ? topic_text : "";
    const std::string subscriber = subscriber_text != nullptr ? subscriber_text : "";

    if (!dbus_validate_bus_name(subscriber.c_str(), nullptr)) {
        return answer(call, ReplyCode::kInvalidSubscriber, quoted(subscriber) + " is not a bus name");
    }
    const std::string problem = topic_problem(topic, true);
    if (!problem.empty()) return answer(call, ReplyCode::kInvalidTopic, problem);
    // Subscriptions on their way count against the limit, or a burst of calls could overshoot it.
    if (!m_table.contains(topic, subscriber) && m_table.size() + m_pending.subscribes() >= m_table.max_size()) {
        return answer(call, ReplyCode::kLimitReached,
                      "the bridge keeps at most " + std::to_string(m_table.max_size()) + " subscriptions");
    }
    if (m_pending.size() >= BridgeLimits::kMaxCallsInFlight) {
        return answer(call, ReplyCode::kLimitReached, "too many calls are waiting for the broker");
    }
    if (!m_mqtt->connected()) return answer(call, ReplyCode::kNotConnected, "the broker is not connected");

    int mid = 0;
    const int rc = m_mqtt->subscribe(topic, mid);
    if (rc != MOSQ_ERR_SUCCESS) return answer(call, code_of(rc), mosquitto_strerror(rc));
    CPendingCall pending;
    pending.kind = CPendingCall::Kind::Subscribe;
    pending.call.reset(dbus_message_ref(call));
    pending.topic = topic;
    pending.subscriber = subscriber;
    pending.deadline = CPendingCalls::Clock::now() + m_ack_timeout;
    m_pending.add(mid, std::move(pending));
}

void CBridgeService::handle_publish(DBusMessage* call) {
    const char* topic_text = nullptr;
    const char* payload_text = nullptr;
    dbus_int32_t reserved = 0;  // as for subscribe
    dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &topic_text, DBUS_TYPE_STRING, &payload_text,
                          DBUS_TYPE_INT32, &reserved, DBUS_TYPE_INVALID);
    const std::string topic = topic_text != nullptr ? topic_text : "";
    // A bus string holds no NUL, so its length is strlen's.
    const std::string payload = payload_text != nullptr ? payload_text : "";

    const std::string problem = topic_problem(topic, false);
    if (!problem.empty()) return answer(call, ReplyCode::kInvalidTopic, problem);
    const size_t length = payload.size();
    if (length > BridgeLimits::kMaxPayloadBytes) {
        return answer(call, ReplyCode::kPayloadTooLarge,
                      "the payload is longer than " + std::to_string(BridgeLimits::kMaxPayloadBytes) + " bytes");
    }
    if (m_pending.size() >= BridgeLimits::kMaxCallsInFlight ||
        m_pending.publish_bytes() + length > BridgeLimits::kMaxPublishBytesInFlight) {
        return answer(call, ReplyCode::kLimitReached, "too many calls are waiting for the broker");
    }
    if (!m_mqtt->connected()) return answer(call, ReplyCode::kNotConnected, "the broker is not connected");

    int mid = 0;
    const int rc = m_mqtt->publish(topic, payload, mid);
    if (rc != MOSQ_ERR_SUCCESS) return answer(call, code_of(rc), mosquitto_strerror(rc));
    CPendingCall pending;
    pending.kind = CPendingCall::Kind::Publish;
    pending.call.reset(dbus_message_ref(call));
    pending.topic = topic;
    pending.payload_bytes = length;
    pending.deadline = CPendingCalls::Clock::now() + m_ack_timeout;
    m_pending.add(mid, std::move(pending));
}

CPendingCalls::Clock::duration CBridgeService::expire(CPendingCalls::Clock::time_point now) {
    for (CPendingCall& late : m_pending.take_expired(now)) {
        const char* ack = late.kind == CPendingCall::Kind::Subscribe ? "SUBACK" : "PUBACK";
        answer(late.call.get(), ReplyCode::kTimedOut,
               std::string("no ") + ack + " for " + quoted(late.topic) + " within " +
                   std::to_string(m_ack_timeout.count()) + " ms");
    }
    return m_pending.until_next_deadline(now);
}

void CBridgeService::fail_all(int code, const char* why) {
    for (CPendingCall& waiting : m_pending.take_all()) answer(waiting.call.get(), code, why);
}

void CBridgeService::stop() { fail_all(ReplyCode::kStopping, "the bridge is stopping"); }

void CBridgeService::on_connected() {
    m_renewals.clear();
    const std::vector<std::string> filters = m_table.filters();
    if (!filters.empty()) QLOG(1, "on_connected, subscribing again to %zu topic filters", filters.size());
    for (const std::string& filter : filters) {
        int mid = 0;
        const int rc = m_mqtt->subscribe(filter, mid);
        if (rc == MOSQ_ERR_SUCCESS) {
            m_renewals[mid] = filter;
        } else {
            // The next session tries again; nothing else would.
            QLOG(3, "on_connected, cannot subscribe again to %s: %s", filter.c_str(), mosquitto_strerror(rc));
        }
    }
}

void CBridgeService::on_connection_lost() {
    m_renewals.clear();
    fail_all(ReplyCode::kConnectionLost, "the broker connection was lost before the acknowledgement");
}

void CBridgeService::on_subscribed(int mid, bool granted) {
    const auto renewal = m_renewals.find(mid);
    if (renewal != m_renewals.end()) {
        if (granted) {
            QLOG(1, "on_subscribed, %s subscribed again", renewal->second.c_str());
        } else {
            QLOG(3, "on_subscribed, the broker now refuses %s", renewal->second.c_str());
        }
        m_renewals.erase(renewal);
        return;
    }
    CPendingCall pending;
    if (!m_pending.take(mid, pending)) return;  // answered already (timed out)
    if (!granted) {
        return answer(pending.call.get(), ReplyCode::kRefused,
                      "the broker refused the subscription to " + quoted(pending.topic));
    }
    m_table.add(pending.topic, pending.subscriber);
    QLOG(1, "on_subscribed, %s for %s", pending.topic.c_str(), pending.subscriber.c_str());
    answer(pending.call.get(), ReplyCode::kOk);
}

void CBridgeService::on_published(int mid) {
    CPendingCall pending;
    if (!m_pending.take(mid, pending)) return;  // answered already (timed out, or the session ended)
    answer(pending.call.get(), ReplyCode::kOk);
}

void CBridgeService::on_message(const mosquitto_message& message) {
    const char* topic = message.topic != nullptr ? message.topic : "";
    const size_t topic_length = strlen(topic);
    const char* payload = message.payload != nullptr ? static_cast<const char*>(message.payload) : "";
    const size_t length = message.payloadlen > 0 ? static_cast<size_t>(message.payloadlen) : 0;
    if (!is_bus_string(topic, topic_length)) {
        QLOG(2, "on_message, dropped a message whose topic is not valid UTF-8 (%zu bytes)", topic_length);
        return;
    }
    if (length > BridgeLimits::kMaxPayloadBytes) {
        QLOG(2, "on_message, dropped a message on %s: %zu bytes is over the %zu the bridge forwards", topic, length,
             BridgeLimits::kMaxPayloadBytes);
        return;
    }
    if (!is_bus_string(payload, length)) {
        QLOG(2, "on_message, dropped a message on %s: its payload (%zu bytes) is not valid UTF-8 or holds a NUL byte",
             topic, length);
        return;
    }
    // The bus wants a terminated string; libmosquitto does not promise one.
    forward(topic, std::string(payload, length));
}

void CBridgeService::forward(const char* topic, const std::string& payload_text) {
    m_table.match(topic, m_targets);
    if (m_targets.empty()) {
        QLOG(0, "forward, nobody subscribed to %s", topic);
        return;
    }
    const char* payload = payload_text.c_str();
    for (const std::string& target : m_targets) {
        CMessagePtr signal(dbus_message_new_signal(kBridgePath, kBridgeInterface, kEventMember));
        // Unicast: the adapter installs no match rules, so only an addressed signal reaches it.
        if (!signal || !dbus_message_set_destination(signal.get(), target.c_str()) ||
            !dbus_message_append_args(signal.get(), DBUS_TYPE_STRING, &topic, DBUS_TYPE_STRING, &payload,
                                      DBUS_TYPE_INVALID) ||
            !m_bus.send(signal.get())) {
            QLOG(3, "forward, out of memory: a message on %s for %s is lost", topic, target.c_str());
        }
    }
}
