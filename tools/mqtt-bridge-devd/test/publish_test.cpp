// "publish" puts the payload on the broker and answers once the broker has it (PUBACK).
#include <string>

#include "bridge_fixture.h"

namespace BridgeTesting {
namespace {

class APublishingBridge : public CBridgeTest {
protected:
    void SetUp() override {
        ASSERT_TRUE(start_environment());
        ASSERT_TRUE(start_bridge());
    }
};

TEST_F(APublishingBridge, DeliversPublicationsIntactToAnMqttSubscriber) {
    std::unique_ptr<CMqttClient> cloud = mqtt_client();
    ASSERT_TRUE(cloud->subscribe("shadow/#", 1));

    const std::string report = R"({"state":{"reported":{"name":"gr)"
                               "\xc3\xbc\xc3\x9f"
                               R"(e"}}})";
    const CAnswer answer = publish("shadow/update", report);
    EXPECT_EQ(answer.text, R"({"code":0})");
    ASSERT_TRUE(cloud->wait_for_count("shadow/update", 1));
    EXPECT_EQ(cloud->messages("shadow/update")[0].payload, report);

    EXPECT_EQ(publish("shadow/update", "").code, 0);
    ASSERT_TRUE(cloud->wait_for_count("shadow/update", 2));
    EXPECT_EQ(cloud->messages("shadow/update")[1].payload, "");
}

TEST_F(APublishingBridge, RefusesTopicsAndPayloadsItCannotPublishWithTheirCodes) {
    for (const std::string& topic : {std::string("a/+/b"), std::string("a/#"), std::string(""), std::string(1025, 't'),
                                     std::string("control\x01"
                                                 "char")}) {
        const CAnswer answer = publish(topic, "p");
        EXPECT_EQ(answer.code, 3) << topic << ": " << describe(answer);
        EXPECT_FALSE(answer.message.empty());
    }
    EXPECT_EQ(publish(std::string(1024, 't'), "p").code, 0);
    EXPECT_EQ(publish("big", std::string(1024 * 1024 + 1, 'x')).code, 7);
    EXPECT_EQ(publish("big", std::string(1024 * 1024, 'x')).code, 0);
}

}  // namespace
}  // namespace BridgeTesting
