#include <gtest/gtest.h>
#include <json/json.h>

#include "adapter_harness.h"
#include "quorel/testsupport/log_capture.h"

using namespace Quorel::Iot::Testing;

namespace {

class ASettingsReport : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(harness.start());
        ASSERT_TRUE(harness.bridge().wait_for_count("publish", 1));
    }

    // The n-th publication (0 is the start-up "get"), once it has arrived.
    std::string publication(size_t n) {
        if (!harness.bridge().wait_for_count("publish", n + 1)) return "none";
        return harness.bridge().published().at(n);
    }

    static std::string update(const Json::Value& reported, unsigned version) {
        Json::Value document;
        document["method"] = "update";
        if (!reported.isNull()) document["state"]["reported"] = reported;
        document["version"] = version;
        return document.toStyledString();
    }

    CLogCapture log;
    CAdapterHarness harness;
};

TEST_F(ASettingsReport, CarriesANewSerialNumberWithTheAppliedSwitchAndTheNextVersion) {
    ASSERT_TRUE(harness.send_shadow(
        R"({"method":"control","payload":{"state":{"desired":{"gw_vexa_switch":1}}},"version":7})"));
    ASSERT_TRUE(harness.wait_value("gw_vexa_switch", "1"));
    ASSERT_TRUE(harness.set_value("gw_vexa_serialNumber", "SN-42"));

    Json::Value reported;
    reported["gw_vexa_serialNumber"] = "SN-42";
    reported["gw_vexa_switch"] = 1;
    EXPECT_EQ(update(reported, 8), publication(1));
    EXPECT_TRUE(log.contains("vexa shadow update:" + update(reported, 8)));
}

TEST_F(ASettingsReport, OfTheLogServiceBeforeAnyAppliedValueHoldsOnlyMethodAndVersion) {
    ASSERT_TRUE(harness.set_value("gw_orlo_reply", "ignored text"));
    EXPECT_EQ(update(Json::Value(), 2), publication(1));
    ASSERT_TRUE(harness.set_value("gw_orlo_reply", "again"));
    EXPECT_EQ(update(Json::Value(), 3), publication(2));
}

TEST_F(ASettingsReport, OfTheLogServiceCarriesTheAppliedLevelAndANullSwitch) {
    ASSERT_TRUE(harness.send_shadow(R"({"method":"reply","payload":{"state":{"reported":{"gw_orlo_level":2}}}})"));
    ASSERT_TRUE(harness.wait_value("gw_orlo_level", "2"));
    ASSERT_TRUE(harness.set_value("gw_orlo_reply", "x"));

    Json::Value reported;
    reported["gw_orlo_level"] = 2;
    reported["gw_orlo_switch"] = Json::Value();
    EXPECT_EQ(update(reported, 2), publication(1));
}

TEST_F(ASettingsReport, KeepsTheLocalVersionWhenADocumentCarriesANullVersion) {
    ASSERT_TRUE(harness.send_shadow(
        R"({"method":"control","payload":{"state":{"desired":{"gw_orlo_project":"p"}}},"version":null})"));
    ASSERT_TRUE(harness.wait_value("gw_orlo_project", "p"));
    ASSERT_TRUE(harness.set_value("gw_vexa_serialNumber", "SN-1"));

    Json::Value reported;
    reported["gw_vexa_serialNumber"] = "SN-1";
    reported["gw_vexa_switch"] = Json::Value();
    EXPECT_EQ(update(reported, 2), publication(1));
}

}  // namespace
