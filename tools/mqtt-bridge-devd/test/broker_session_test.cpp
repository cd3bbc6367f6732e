// The broker session: the broker down at start, restarted, refusing, frozen or killed, and the
// bridge stopping with calls still waiting for it.
#include <signal.h>

#include <string>

#include "bridge_fixture.h"
#include "own_broker.h"
#include "quorel/testsupport/wait.h"

namespace BridgeTesting {
namespace {

using Events = std::vector<std::string>;

class ABridgeAndItsBroker : public CBridgeTest {};

TEST_F(ABridgeAndItsBroker, ReportsABrokerDownAtStartAtOnceThenUsesItOnceUp) {
    ASSERT_TRUE(start_environment());
    m_broker.stop();
    ASSERT_TRUE(start_bridge({}, false));
    std::unique_ptr<CFakeService> adapter = start_listener(kAdapter);

    // The adapter gives a subscribe one second.
    const CAnswer down = subscribe("shadow/get", kAdapter, 1000);
    EXPECT_EQ(down.code, 1) << describe(down);
    EXPECT_LT(down.elapsed_ms, 500);
    EXPECT_EQ(publish("shadow/update", "x", 1000).code, 1);

    ASSERT_TRUE(m_broker.start());
    ASSERT_TRUE(wait_for_log("connected to the broker"));
    const CAnswer up = subscribe("shadow/get", kAdapter, 1000);
    EXPECT_EQ(up.text, R"({"code":0})");
    std::unique_ptr<CMqttClient> cloud = mqtt_client();
    ASSERT_TRUE(cloud->publish("shadow/get", "after", 1));
    ASSERT_TRUE(adapter->wait_for_count("subscribe_event", 1));
    EXPECT_EQ(events(*adapter), Events({"shadow/get|after"}));
}

TEST_F(ABridgeAndItsBroker, CountsASessionNotYetAcceptedAsNotConnected) {
    COwnBroker broker;
    ASSERT_TRUE(broker.start());
    // Frozen, it still lets the connection in (the kernel does that) but never sends CONNACK.
    ASSERT_TRUE(broker.freeze());
    ASSERT_TRUE(start_environment(false));
    ASSERT_TRUE(start_bridge({}, false, broker.port()));

    const CAnswer early = subscribe("shadow/get", kAdapter, 1000);
    EXPECT_EQ(early.code, 1) << describe(early);
    EXPECT_LT(early.elapsed_ms, 500);

    ASSERT_TRUE(broker.thaw());
    ASSERT_TRUE(wait_for_log("connected to the broker"));
    EXPECT_EQ(subscribe("shadow/get", kAdapter, 1000).code, 0);
}

TEST_F(ABridgeAndItsBroker, RenewsItsSubscriptionsAfterABrokerRestartByItself) {
    ASSERT_TRUE(start_environment());
    ASSERT_TRUE(start_bridge());
    std::unique_ptr<CFakeService> adapter = start_listener(kAdapter);
    ASSERT_EQ(subscribe("shadow/get").code, 0);
    ASSERT_EQ(subscribe("config/#").code, 0);
    {
        std::unique_ptr<CMqttClient> cloud = mqtt_client();
        ASSERT_TRUE(cloud->publish("shadow/get", "before", 1));
        ASSERT_TRUE(adapter->wait_for_count("subscribe_event", 1));
    }

    m_broker.stop();
    ASSERT_TRUE(wait_for_log("lost the broker"));
    const CAnswer down = subscribe("during/outage", kAdapter, 1000);
    EXPECT_EQ(down.code, 1) << describe(down);
    EXPECT_LT(down.elapsed_ms, 500);

    ASSERT_TRUE(m_broker.start());
    ASSERT_TRUE(wait_for_log("shadow/get subscribed again"));
    ASSERT_TRUE(wait_for_log("config/# subscribed again"));
    std::unique_ptr<CMqttClient> cloud = mqtt_client();
    ASSERT_TRUE(cloud->publish("shadow/get", "after", 1));
    ASSERT_TRUE(cloud->publish("config/a/b", "too", 1));
    ASSERT_TRUE(adapter->wait_for_count("subscribe_event", 3));
    EXPECT_EQ(events(*adapter), Events({"shadow/get|before", "shadow/get|after", "config/a/b|too"}));
    // What failed during the outage is the subscriber's to ask again, not the bridge's to renew.
    EXPECT_EQ(log_count("during/outage subscribed again"), 0u);
}

TEST_F(ABridgeAndItsBroker, AnswersARefusedSubscriptionWithItsCode) {
    COwnBroker broker;
    if (!broker.refuse_subscriptions_under("forbidden")) GTEST_SKIP() << "mosquitto's dynamic security plugin";
    ASSERT_TRUE(broker.start());
    ASSERT_TRUE(start_environment(false));
    ASSERT_TRUE(start_bridge({}, true, broker.port()));
    ASSERT_EQ(broker.log().find("Error loading"), std::string::npos) << broker.log();

    const CAnswer refused = subscribe("forbidden/a");
    EXPECT_EQ(refused.code, 2) << describe(refused);
    EXPECT_NE(refused.message.find("refused"), std::string::npos);
    EXPECT_EQ(subscribe("allowed/a").code, 0);
}

TEST_F(ABridgeAndItsBroker, TimesOutUnacknowledgedCallsAndKeepsTheSession) {
    COwnBroker broker;
    ASSERT_TRUE(broker.start());
    ASSERT_TRUE(start_environment(false));
    ASSERT_TRUE(start_bridge({"--ack-timeout", "300"}, true, broker.port()));

    ASSERT_TRUE(broker.freeze());
    const CAnswer subscribed = subscribe("late/sub");
    EXPECT_EQ(subscribed.code, 5) << describe(subscribed);
    EXPECT_GE(subscribed.elapsed_ms, 250);
    EXPECT_LT(subscribed.elapsed_ms, 2000);
    const CAnswer published = publish("late/pub", "p");
    EXPECT_EQ(published.code, 5) << describe(published);
    ASSERT_TRUE(broker.thaw());

    EXPECT_EQ(subscribe("in/time").code, 0);
    EXPECT_EQ(publish("in/time", "p").code, 0);
}

TEST_F(ABridgeAndItsBroker, BoundsWhatWaitsForTheBroker) {
    COwnBroker broker;
    ASSERT_TRUE(broker.start());
    ASSERT_TRUE(start_environment(false));
    ASSERT_TRUE(start_bridge({"--ack-timeout", "20000"}, true, broker.port()));
    ASSERT_TRUE(broker.freeze());

    // The bus lets one connection wait for 128 replies at most: 1024 calls (and a barrier call
    // each) need 9 callers.
    std::vector<std::unique_ptr<CBusClient>> callers;
    std::vector<std::pair<CBusClient*, size_t>> waiting;
    for (int i = 0; i < 1024; ++i) {
        if (i % 120 == 0) {
            callers.emplace_back(new CBusClient(m_bus.address()));
            ASSERT_TRUE(callers.back()->connect());
        }
        CCallBuilder builder = bridge_call("subscribe");
        builder.str("waiting/" + std::to_string(i)).str(kAdapter).i32(0);
        waiting.emplace_back(callers.back().get(), callers.back()->send_call(builder, 20000));
    }
    // Calls on one connection are handled in order, those of several are not: a caller's own
    // last call answered tells that the bridge has taken all of that caller's.
    for (const auto& caller : callers) {
        CCallBuilder barrier = bridge_call("subscribe");
        barrier.str("barrier").str("not a bus name").i32(0);
        ASSERT_NE(caller->call(barrier).args.at(0).find(R"("code":4)"), std::string::npos);
    }
    const CAnswer over_calls = subscribe("one/more");
    EXPECT_EQ(over_calls.code, 6) << describe(over_calls);
    EXPECT_NE(over_calls.message.find("too many calls"), std::string::npos);
    EXPECT_EQ(publish("one/more", "p").code, 6);

    ASSERT_TRUE(broker.thaw());
    for (const auto& call : waiting) {
        const CRecordedMessage reply = call.first->collect(call.second);
        ASSERT_EQ(reply.args.size(), 1u);
        ASSERT_EQ(reply.args[0], R"({"code":0})");
    }

    // Publications are bounded by their bytes too: 16 MiB may wait, not a byte more.
    ASSERT_TRUE(broker.freeze());
    const std::string mebibyte(1024 * 1024, 'x');
    std::vector<size_t> tickets;
    for (int i = 0; i < 16; ++i) {
        CCallBuilder builder = bridge_call("publish");
        builder.str("heavy").str(mebibyte).i32(0);
        tickets.push_back(m_client->send_call(builder, 20000));
    }
    // Same connection as the 16: handled after them.
    const CAnswer over_bytes = publish("heavy", "x");
    EXPECT_EQ(over_bytes.code, 6) << describe(over_bytes);
    ASSERT_TRUE(broker.thaw());
    for (size_t ticket : tickets) {
        const CRecordedMessage reply = m_client->collect(ticket);
        ASSERT_EQ(reply.args.size(), 1u);
        EXPECT_EQ(reply.args[0], R"({"code":0})");
    }
}

TEST_F(ABridgeAndItsBroker, AnswersWaitingCallsAtOnceWhenTheBrokerDies) {
    COwnBroker broker;
    ASSERT_TRUE(broker.start());
    ASSERT_TRUE(start_environment(false));
    ASSERT_TRUE(start_bridge({"--ack-timeout", "20000"}, true, broker.port()));

    ASSERT_TRUE(broker.freeze());
    CCallBuilder subscribe_call = bridge_call("subscribe");
    subscribe_call.str("never/acked").str(kAdapter).i32(0);
    const size_t ticket = m_client->send_call(subscribe_call, 10000);
    // Calls on one connection are handled in order: once this one is answered, the SUBSCRIBE
    // has gone out, and the broker dies without answering it.
    ASSERT_EQ(subscribe("barrier", "not a bus name").code, 4);
    broker.kill();
    const auto start = std::chrono::steady_clock::now();
    const CRecordedMessage reply = m_client->collect(ticket);
    EXPECT_LT(elapsed_ms(start), 5000);
    ASSERT_EQ(reply.args.size(), 1u);
    EXPECT_NE(reply.args[0].find(R"("code":8)"), std::string::npos) << reply.args[0];
}

TEST_F(ABridgeAndItsBroker, AnswersWaitingCallsWhenItStops) {
    COwnBroker broker;
    ASSERT_TRUE(broker.start());
    ASSERT_TRUE(start_environment(false));
    ASSERT_TRUE(start_bridge({"--ack-timeout", "20000"}, true, broker.port()));

    ASSERT_TRUE(broker.freeze());
    CCallBuilder publish_call = bridge_call("publish");
    publish_call.str("never/acked").str("p").i32(0);
    const size_t ticket = m_client->send_call(publish_call, 10000);
    ASSERT_EQ(subscribe("barrier", "not a bus name").code, 4);  // the publication is out
    ASSERT_TRUE(m_bridge.signal(SIGTERM));
    const CRecordedMessage reply = m_client->collect(ticket);
    ASSERT_EQ(reply.args.size(), 1u);
    EXPECT_NE(reply.args[0].find(R"("code":10)"), std::string::npos) << reply.args[0];
    ASSERT_TRUE(m_bridge.wait_exit(std::chrono::seconds(5)));
    EXPECT_EQ(m_bridge.exit_status(), 0);
}

}  // namespace
}  // namespace BridgeTesting
