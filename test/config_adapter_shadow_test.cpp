#include <gtest/gtest.h>

#include "adapter_harness.h"
#include "quorel/testsupport/fake_subscriber.h"
#include "quorel/testsupport/log_capture.h"

using namespace Quorel::Iot::Testing;

namespace {

std::string control(const std::string& desired) {
    return R"({"method":"control","payload":{"state":{"desired":)" + desired + "}}}";
}

std::string reply(const std::string& reported) {
    return R"({"method":"reply","payload":{"state":{"reported":)" + reported + "}}}";
}

class AShadowDocument : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(harness.start()); }

    CLogCapture log;
    CAdapterHarness harness;
};

TEST_F(AShadowDocument, AppliesADesiredNumberAsItsDecimalText) {
    ASSERT_TRUE(harness.send_shadow(control(R"({"gw_vexa_switch":1})")));
    EXPECT_TRUE(harness.wait_value("gw_vexa_switch", "1"));
}

TEST_F(AShadowDocument, AppliesADesiredTrueAsOne) {
    ASSERT_TRUE(harness.send_shadow(control(R"({"gw_orlo_switch":true})")));
    EXPECT_TRUE(harness.wait_value("gw_orlo_switch", "1"));
}

TEST_F(AShadowDocument, SendsANumberAboveTheSignedRangeAsItsNegativeText) {
    ASSERT_TRUE(harness.send_shadow(control(R"({"gw_vexa_switch":3000000000})")));
    EXPECT_TRUE(harness.wait_value("gw_vexa_switch", "-1294967296"));
}

TEST_F(AShadowDocument, TakesAKeyFromDesiredWhenReportedHasItToo) {
    ASSERT_TRUE(harness.send_shadow(R"({"method":"control","payload":{"state":{"desired":{"gw_orlo_level":"warn"},)"
                                    R"("reported":{"gw_orlo_level":"debug","gw_orlo_logStore":"store-1"}}}})"));
    EXPECT_TRUE(harness.wait_value("gw_orlo_level", "warn"));
    EXPECT_EQ("0:store-1", harness.value_of("gw_orlo_logStore"));
    EXPECT_EQ(0u, log.count("set config gw_orlo_level:debug "));
}

TEST_F(AShadowDocument, NeverAppliesKeysOutsideTheSynchronisedSeven) {
    ASSERT_TRUE(harness.send_shadow(control(R"({"gw_other":"x","gw_vexa_accessKey":"ak"})")));
    ASSERT_TRUE(harness.wait_value("gw_vexa_accessKey", "ak"));
    EXPECT_EQ("100100:", harness.value_of("gw_other"));
}

TEST_F(AShadowDocument, FromAReplyIsAppliedOnceAndSkippedWhenRepeated) {
    ASSERT_TRUE(harness.send_shadow(reply(R"({"gw_orlo_project":"proj-a","gw_vexa_secretKey":-3})")));
    ASSERT_TRUE(harness.wait_value("gw_orlo_project", "proj-a"));
    ASSERT_TRUE(harness.send_shadow(reply(R"({"gw_orlo_project":"proj-a","gw_vexa_secretKey":-3})")));
    EXPECT_TRUE(log.wait_for("local have set config gw_orlo_project:proj-a "));
    EXPECT_EQ(1u, log.count("set config gw_orlo_project:proj-a "));
    EXPECT_EQ("100100:", harness.value_of("gw_vexa_secretKey"));
}

TEST_F(AShadowDocument, WithoutMethodIsReportedAndNotApplied) {
    ASSERT_TRUE(harness.send_shadow(R"({"payload":{"state":{"desired":{"gw_vexa_switch":1}}}})"));
    EXPECT_TRUE(log.wait_for("shadow not has 'method' member!"));
    EXPECT_EQ("100100:", harness.value_of("gw_vexa_switch"));
}

TEST_F(AShadowDocument, ThatIsNotJsonIsDropped) {
    ASSERT_TRUE(harness.send_shadow("{not json"));
    EXPECT_TRUE(log.wait_for("parse result error."));
}

// The adapter's threads outlive it: deleting it while its shadow thread waits on a key owner
// must finish within the call's 500 ms and leave the thread silent afterwards.
TEST(ADeletedAdapter, WaitsOnlyForTheSetInFlightAndSilencesItsThreads) {
    CLogCapture log;
    CAdapterHarness harness;
    ASSERT_TRUE(harness.start());
    CFakeSubscriber owner(harness.service().address(), "iot.test.owner");
    owner.answer_nothing();
    ASSERT_TRUE(owner.start());
    auto subscribed = harness.service().invoke("subscribe_config",
                                               {CArg::s("iot.test.owner"), CArg::s("gw_vexa_accessKey"), CArg::i(0)});
    ASSERT_EQ(std::vector<std::string>{"0"}, subscribed.args);

    ASSERT_TRUE(harness.send_shadow(control(R"({"gw_vexa_accessKey":"ak","gw_vexa_secretKey":"sk"})")));
    ASSERT_TRUE(owner.wait_for_notifications(1));
    const auto before = std::chrono::steady_clock::now();
    harness.delete_adapter();
    const long long took = elapsed_ms(before);
    EXPECT_LE(took, 1500);

    // The secret key came after the refused access key: its call found the adapter gone.
    EXPECT_EQ("100100:", harness.value_of("gw_vexa_secretKey"));
    // Its shadow thread wakes within 3 s; it must end without a word.
    log.clear();
    EXPECT_FALSE(wait_until([&] { return !log.lines().empty(); }, std::chrono::milliseconds(3500)));
}

}  // namespace
