// The cloud shadow adapter against documents a faulty or hostile cloud may send: a version that is
// no number, text that is no UTF-8, and the log lines by which the shadow thread is known.
#include <gtest/gtest.h>

#include <string>

#include "adapter_harness.h"
#include "quorel/testsupport/fake_subscriber.h"
#include "quorel/testsupport/log_capture.h"

using namespace Quorel::Iot::Testing;

namespace {

std::string control(const std::string& desired, const std::string& version = "7") {
    return R"({"method":"control","version":)" + version + R"(,"payload":{"state":{"desired":)" + desired + "}}}";
}

class AHostileCloud : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(harness.start());
        // The request for the whole shadow that every start publishes.
        ASSERT_TRUE(harness.bridge().wait_for_count("publish", 1));
    }

    // A notify_config call straight to the adapter, as the configuration service makes it.
    CRecordedMessage notify(const std::string& key, const std::string& value) {
        CCallBuilder call("iot.dmp.config.adapter", "/iot/dmp/config/adapter", "iot.dmp.config.adapter",
                          "notify_config");
        call.str(key).str(value);
        return harness.service().client().call(call);
    }
    // The function name of the first line with this message, or "" when none was logged.
    std::string function_of(const std::string& message) const {
        for (const CLogLine& line : log.lines())
            if (line.message == message) return line.function;
        return "";
    }

    CLogCapture log;
    CAdapterHarness harness;
};

}  // namespace

TEST_F(AHostileCloud, CannotKeepTheAdapterFromAnsweringNotificationsWithAVersionThatIsNoNumber) {
    for (const char* version : {R"("seven")", R"({"v":1})", "-4", "1e20"}) {
        harness.bridge().clear_received();
        ASSERT_TRUE(harness.send_shadow(control(R"({"gw_vexa_switch":1})", version)));
        // The version is taken before the values are applied.
        ASSERT_TRUE(harness.wait_value("gw_vexa_switch", "1"));
        const CRecordedMessage answer = notify("gw_orlo_reply", "anything");
        EXPECT_EQ(answer.signature, "i") << version;
        EXPECT_EQ(answer.args, std::vector<std::string>{"0"}) << version;
        // What cannot be read as an unsigned 32-bit version counts as 0: the report carries 1.
        std::string report;
        ASSERT_TRUE(wait_until([&] {
            for (const std::string& published : harness.bridge().published())
                if (published.find("\"update\"") != std::string::npos) report = published;
            return !report.empty();
        })) << version;
        EXPECT_NE(report.find("\"version\" : 1\n"), std::string::npos) << report;
        // The next document starts the count afresh.
        ASSERT_TRUE(harness.set_value("gw_vexa_switch", "0"));
    }
}

TEST_F(AHostileCloud, CannotMakeTheAdapterApplyTextThatIsNoUtf8ButTheOtherKeysGoThrough) {
    ASSERT_TRUE(harness.send_shadow(control(R"({"gw_orlo_project":"bad\udc00x","gw_orlo_level":"warn"})")));
    ASSERT_TRUE(harness.wait_value("gw_orlo_level", "warn"));
    EXPECT_EQ(harness.value_of("gw_orlo_project"), "100100:");
    EXPECT_EQ(function_of("set_param_config, key:gw_orlo_project, cloud value is not UTF-8 text, not applied."),
              "set_param_config");
    // The process is alive and the adapter still answers.
    EXPECT_EQ(notify("gw_other", "x").args, std::vector<std::string>{"0"});
}

TEST_F(AHostileCloud, SeesTheShadowThreadsLinesUnderItsOwnOperationNames) {
    CFakeSubscriber owner(harness.service().address(), "iot.test.owner");
    ASSERT_TRUE(owner.start());
    owner.answer_code(5);
    ASSERT_EQ(harness.service()
                  .invoke("subscribe_config", {CArg::s("iot.test.owner"), CArg::s("gw_orlo_project"), CArg::i(0)})
                  .args,
              std::vector<std::string>{"0"});
    ASSERT_TRUE(harness.send_shadow(control(R"({"gw_orlo_project":"refused"})")));
    ASSERT_TRUE(log.wait_for("set config gw_orlo_project:refused error!"));
    EXPECT_EQ(function_of("set config gw_orlo_project:refused error!"), "set_param_config");
    for (const CLogLine& line : log.lines()) {
        if (line.message.rfind("new shadow:", 0) == 0 || line.message.rfind("old shadow:", 0) == 0) {
            EXPECT_EQ(line.function, "shadow_thread_proc") << line.message;
        }
    }
    EXPECT_NE(function_of("proc reply method of shadow"), "process_shadow");
}
