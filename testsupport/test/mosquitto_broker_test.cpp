#include "quorel/testsupport/mosquitto_broker.h"

#include <gtest/gtest.h>

#include "quorel/testsupport/mqtt_client.h"

using namespace Quorel::Iot::Testing;

TEST(APrivateBroker, CarriesAMessageBetweenTwoClients) {
    CMosquittoBroker broker;
    ASSERT_TRUE(broker.start()) << broker.log();
    CMqttClient listener, talker;
    ASSERT_TRUE(listener.connect(broker.host(), broker.port()));
    ASSERT_TRUE(listener.subscribe("/shadow/get/+/+"));
    ASSERT_TRUE(talker.connect(broker.host(), broker.port()));
    ASSERT_TRUE(talker.publish("/shadow/get/pk/dev", "{\"a\":1}", 1));
    ASSERT_TRUE(listener.wait_for_count("/shadow/get/pk/dev", 1));
    EXPECT_EQ("{\"a\":1}", listener.messages("/shadow/get/pk/dev").at(0).payload);
}

TEST(APrivateBroker, ComesBackOnItsPortAfterAStop) {
    CMosquittoBroker broker;
    ASSERT_TRUE(broker.start());
    const int port = broker.port();
    broker.stop();
    EXPECT_FALSE(broker.running());
    CMqttClient refused;
    EXPECT_FALSE(refused.connect(broker.host(), port, std::chrono::milliseconds(500)));
    ASSERT_TRUE(broker.start()) << broker.log();
    EXPECT_EQ(port, broker.port());
    CMqttClient client;
    EXPECT_TRUE(client.connect(broker.host(), port));
}

TEST(APrivateBroker, TwoBrokersTakeDifferentPorts) {
    CMosquittoBroker one, two;
    ASSERT_TRUE(one.start());
    ASSERT_TRUE(two.start());
    EXPECT_NE(one.port(), two.port());
}
