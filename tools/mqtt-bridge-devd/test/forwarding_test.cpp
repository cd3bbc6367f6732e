// Messages from the broker reach the bus as "subscribe_event" signals addressed to their
// subscribers, and only those.
#include <string>
#include <vector>

#include "bridge_fixture.h"

namespace BridgeTesting {
namespace {

using Events = std::vector<std::string>;

class AForwardingBridge : public CBridgeTest {
protected:
    void SetUp() override {
        ASSERT_TRUE(start_environment());
        ASSERT_TRUE(start_bridge());
        m_adapter = start_listener(kAdapter);
        m_cloud = mqtt_client();
    }

    // Publishes at QoS 1, so that messages reach the broker in the order sent.
    void send(const std::string& topic, const std::string& payload) {
        ASSERT_TRUE(m_cloud->publish(topic, payload, 1)) << topic;
    }

    std::unique_ptr<CFakeService> m_adapter;
    std::unique_ptr<CMqttClient> m_cloud;
};

TEST_F(AForwardingBridge, SignalsAMessageToItsSubscriberAloneAndUnicast) {
    // The bystander listens to every signal of the interface: a broadcast would reach it.
    std::unique_ptr<CFakeService> bystander = start_listener("iot.other.listener");
    // Sent without waiting for the daemon's answer: a blocking call here would race the
    // listener's own reading thread for the reply. The round trip after it, on the same
    // connection, tells that the daemon has the rule.
    dbus_bus_add_match(bystander->connection(), "type='signal',interface='iot.bridge.mqtt'", nullptr);
    CCallBuilder get_id("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId");
    DBusMessage* request = get_id.take();
    DBusMessage* reply = bystander->call(request);
    dbus_message_unref(request);
    ASSERT_NE(reply, nullptr);
    dbus_message_unref(reply);

    const CAnswer answer = subscribe("shadow/get", kAdapter);
    EXPECT_EQ(answer.text, R"({"code":0})");
    ASSERT_EQ(subscribe("marker", "iot.other.listener").code, 0);

    send("shadow/get", R"({"state":{"desired":{"a":1}}})");
    send("marker", "m");
    ASSERT_TRUE(m_adapter->wait_for_count("subscribe_event", 1));
    ASSERT_TRUE(bystander->wait_for_count("subscribe_event", 1));

    const std::vector<CRecordedMessage> received = m_adapter->received("subscribe_event");
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0].type, DBUS_MESSAGE_TYPE_SIGNAL);
    EXPECT_EQ(received[0].path, kPath);
    EXPECT_EQ(received[0].interface, kInterface);
    EXPECT_EQ(received[0].destination, kAdapter);
    EXPECT_EQ(received[0].signature, "ss");
    EXPECT_EQ(events(*m_adapter), Events({R"(shadow/get|{"state":{"desired":{"a":1}}})"}));
    EXPECT_EQ(events(*bystander), Events({"marker|m"}));
}

TEST_F(AForwardingBridge, SendsEverySubscriberOfAFilterItsOwnCopy) {
    std::unique_ptr<CFakeService> second = start_listener("iot.second.listener");
    ASSERT_EQ(subscribe("shared/topic", kAdapter).code, 0);
    ASSERT_EQ(subscribe("shared/topic", "iot.second.listener").code, 0);
    // The same pair again is accepted, and does not double the signals.
    ASSERT_EQ(subscribe("shared/topic", kAdapter).code, 0);

    send("shared/topic", "one");
    ASSERT_TRUE(m_adapter->wait_for_count("subscribe_event", 1));
    ASSERT_TRUE(second->wait_for_count("subscribe_event", 1));
    send("shared/topic", "two");
    ASSERT_TRUE(m_adapter->wait_for_count("subscribe_event", 2));
    ASSERT_TRUE(second->wait_for_count("subscribe_event", 2));
    EXPECT_EQ(events(*m_adapter), Events({"shared/topic|one", "shared/topic|two"}));
    EXPECT_EQ(events(*second), Events({"shared/topic|one", "shared/topic|two"}));
    for (const CRecordedMessage& event : second->received("subscribe_event")) {
        EXPECT_EQ(event.destination, "iot.second.listener");
    }
}

TEST_F(AForwardingBridge, SendsOneSignalPerMessageAndSubscriberWhateverTheOverlap) {
    std::unique_ptr<CFakeService> second = start_listener("iot.second.listener");
    ASSERT_EQ(subscribe("a/#", kAdapter).code, 0);
    ASSERT_EQ(subscribe("a/+", kAdapter).code, 0);
    ASSERT_EQ(subscribe("a/b", "iot.second.listener").code, 0);
    ASSERT_EQ(subscribe("end", kAdapter).code, 0);
    ASSERT_EQ(subscribe("end", "iot.second.listener").code, 0);

    send("a/b", "once");
    send("end", "e");
    ASSERT_TRUE(m_adapter->wait_for_count("subscribe_event", 2));
    ASSERT_TRUE(second->wait_for_count("subscribe_event", 2));
    EXPECT_EQ(events(*m_adapter), Events({"a/b|once", "end|e"}));
    EXPECT_EQ(events(*second), Events({"a/b|once", "end|e"}));
}

TEST_F(AForwardingBridge, MatchesWildcardFiltersAsMqttDefinesThem) {
    ASSERT_EQ(subscribe("sensors/+/temp").code, 0);
    ASSERT_EQ(subscribe("alerts/#").code, 0);
    ASSERT_EQ(subscribe("end").code, 0);

    for (const char* topic :
         {"sensors/a/temp", "sensors/a/b/temp", "sensors/temp", "alerts", "alerts/x/y", "other/alerts", "end"}) {
        send(topic, "p");
    }
    ASSERT_TRUE(m_adapter->wait_for_count("subscribe_event", 4));
    EXPECT_EQ(events(*m_adapter), Events({"sensors/a/temp|p", "alerts|p", "alerts/x/y|p", "end|p"}));
}

TEST_F(AForwardingBridge, DropsPayloadsTheBusCannotCarryWithALogLineAndGoesOn) {
    ASSERT_EQ(subscribe("data").code, 0);
    send("data", "\xff\xfe not UTF-8");
    send("data", std::string("nul\0inside", 10));
    send("data", "\xed\xa0\x80 a surrogate");
    send("data",
         "gr\xc3\xbc\xc3\x9f"
         "e \xe2\x9c\x93\n\ttabs and lines");
    ASSERT_TRUE(m_adapter->wait_for_count("subscribe_event", 1));
    EXPECT_EQ(events(*m_adapter), Events({"data|gr\xc3\xbc\xc3\x9f"
                                          "e \xe2\x9c\x93\n\ttabs and lines"}));
    // The bridge's log is written a moment after the lines are logged.
    EXPECT_TRUE(wait_for_log("not valid UTF-8 or holds a NUL byte", 3));
    EXPECT_EQ(log_count("not valid UTF-8 or holds a NUL byte"), 3u);
    EXPECT_TRUE(m_bridge.running());
}

TEST_F(AForwardingBridge, DropsPayloadsOverTheLimitWithALogLine) {
    ASSERT_EQ(subscribe("big").code, 0);
    send("big", std::string(1024 * 1024 + 1, 'x'));
    send("big", std::string(1024 * 1024, 'y'));
    ASSERT_TRUE(m_adapter->wait_for_count("subscribe_event", 1));
    const std::vector<std::string> received = events(*m_adapter);
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0], "big|" + std::string(1024 * 1024, 'y'));
    EXPECT_TRUE(wait_for_log("1048577 bytes is over the 1048576 the bridge forwards"));
}

TEST_F(AForwardingBridge, ForwardsEmptyPayloads) {
    ASSERT_EQ(subscribe("empty").code, 0);
    send("empty", "");
    ASSERT_TRUE(m_adapter->wait_for_count("subscribe_event", 1));
    EXPECT_EQ(events(*m_adapter), Events({"empty|"}));
}

}  // namespace
}  // namespace BridgeTesting
