#include <gtest/gtest.h>
#include <json/json.h>

#include "adapter_harness.h"
#include "quorel/testsupport/log_capture.h"

using namespace Quorel::Iot::Testing;

namespace {

class AStartedAdapter : public ::testing::Test {
protected:
    CRecordedMessage notify(std::initializer_list<std::string> args) {
        CCallBuilder builder("iot.dmp.config.adapter", "/iot/dmp/config/adapter", "iot.dmp.config.adapter",
                             "notify_config");
        for (const auto& arg : args) builder.str(arg);
        return harness.service().client().call(builder);
    }

    CLogCapture log;
    CAdapterHarness harness;
};

TEST_F(AStartedAdapter, AsksTheCloudForTheWholeShadowOnTheUpdateTopic) {
    ASSERT_TRUE(harness.start());
    ASSERT_TRUE(harness.bridge().wait_for_count("publish", 1));
    const auto get = harness.bridge().received("publish").at(0);
    Json::Value request;
    request["method"] = "get";
    EXPECT_EQ((std::vector<std::string>{CAdapterHarness::kUpdateTopic, request.toStyledString(), "0"}), get.args);
}

TEST_F(AStartedAdapter, SubscribesTheGetTopicForItsOwnBusName) {
    ASSERT_TRUE(harness.start());
    ASSERT_TRUE(log.wait_for("subscribe success:{\"code\":0}"));
    const auto subscribe = harness.bridge().received("subscribe").at(0);
    EXPECT_EQ((std::vector<std::string>{CAdapterHarness::kGetTopic, "iot.dmp.config.adapter", "0"}), subscribe.args);
    EXPECT_EQ("/iot/bridge/mqtt", subscribe.path);
}

TEST_F(AStartedAdapter, TakesABridgeAnswerWithoutCodeZeroAsARefusal) {
    ASSERT_TRUE(harness.prepare());
    harness.bridge().set_subscribe_reply("{}");
    ASSERT_TRUE(harness.adapter().start());
    EXPECT_TRUE(log.wait_for("subscribe result:{}"));
    EXPECT_TRUE(log.wait_for("subscribe cloud topic error!"));
}

// The one test that waits for the 15 s retry.
TEST_F(AStartedAdapter, RetriesARefusedSubscriptionEveryFifteenSecondsUntilAccepted) {
    ASSERT_TRUE(harness.prepare());
    harness.bridge().set_subscribe_reply("{\"code\":5}");
    ASSERT_TRUE(harness.adapter().start());
    ASSERT_TRUE(log.wait_for("subscribe result:{\"code\":5}"));
    const auto refused = std::chrono::steady_clock::now();
    harness.bridge().set_subscribe_reply("{\"code\":0}");
    ASSERT_TRUE(log.wait_for("subscribe success:{\"code\":0}", std::chrono::seconds(25)));
    EXPECT_GE(elapsed_ms(refused), 14000);
    EXPECT_LE(elapsed_ms(refused), 20000);
    EXPECT_EQ(2u, harness.bridge().count("subscribe"));
}

TEST_F(AStartedAdapter, IgnoresEventsOfOtherTopics) {
    ASSERT_TRUE(harness.start());
    // Only a document on the get topic reaches the parser.
    ASSERT_TRUE(harness.bridge().emit_event(CAdapterHarness::kUpdateTopic, "{not json"));
    ASSERT_TRUE(harness.bridge().emit_event("/shadow/get/other/gw-7", "{not json"));
    ASSERT_TRUE(harness.send_shadow("{not json"));
    ASSERT_TRUE(log.wait_for("parse result error."));
    EXPECT_EQ(1u, log.count("parse result error."));
}

TEST_F(AStartedAdapter, AnswersANotificationWithOneStringWith100000) {
    ASSERT_TRUE(harness.start());
    EXPECT_EQ(std::vector<std::string>{"100000"}, notify({"gw_vexa_serialNumber"}).args);
    EXPECT_EQ(2u, log.count("start handle_notify_config"));
}

TEST_F(AStartedAdapter, AnswersANotificationOfAnUnobservedKeyWithoutPublishing) {
    ASSERT_TRUE(harness.start());
    ASSERT_TRUE(harness.bridge().wait_for_count("publish", 1));
    EXPECT_EQ(std::vector<std::string>{"0"}, notify({"gw_vexa_switch", "1"}).args);
    EXPECT_TRUE(log.contains("notify config: key:gw_vexa_switch, value:1"));
    EXPECT_EQ(1u, harness.bridge().count("publish"));
}

TEST_F(AStartedAdapter, RefusesASecondStartOnItsConnection) {
    ASSERT_TRUE(harness.start());
    EXPECT_FALSE(harness.adapter().start());
    EXPECT_EQ(2u, log.count("start CConfigAdatper"));
    EXPECT_EQ(1u, log.count("start, connect to dbus fail."));
}

TEST(AnAdapterClientCall, ChecksItsArgumentsBeforeCallingAnything) {
    Quorel::Iot::Configmanager::CConfigAdatper adapter("unix:path=/nonexistent", "iot.dmp.config.adapter", {});
    EXPECT_EQ(100104, adapter.subscribe_config("gw_orlo_reply", 2, 500));
    EXPECT_EQ(100001, adapter.subscribe_config(nullptr, 1, 500));
    EXPECT_EQ(100001, adapter.subscribe_config("gw_orlo_reply", 1, -1));
    EXPECT_EQ(100008, adapter.subscribe_config("gw_orlo_reply", 1, 500));
    std::string value = "untouched";
    EXPECT_EQ(100008, adapter.get_config("gw_system_productkey", value, 500));
    EXPECT_EQ("untouched", value);
}

TEST(AnAdapterWithoutConfigurationService, StartsWithEmptyIdentityTopics) {
    CLogCapture log;
    CAdapterHarness harness;
    ASSERT_TRUE(harness.prepare());
    harness.service().stop_service();
    ASSERT_TRUE(harness.adapter().start());
    ASSERT_TRUE(harness.bridge().wait_for_count("subscribe", 1));
    ASSERT_TRUE(harness.bridge().wait_for_count("publish", 1));
    EXPECT_EQ("/shadow/get//", harness.bridge().received("subscribe").at(0).args.at(0));
    EXPECT_EQ("/shadow/update//", harness.bridge().received("publish").at(0).args.at(0));
}

}  // namespace
