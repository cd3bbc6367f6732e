// The gateway loop end to end: a value desired in the cloud reaches the store through the broker,
// the bridge and the adapter, and a change of an observed key goes back up as a shadow update.
#include <gtest/gtest.h>
#include <json/json.h>

#include "gateway_stack.h"
#include "quorel/testsupport/mqtt_client.h"
#include "quorel/testsupport/wait.h"

using namespace Quorel::Iot::Testing;
using std::chrono::seconds;

namespace {

constexpr const char kGetTopic[] = "/shadow/get/pk01/gw-7";
constexpr const char kUpdateTopic[] = "/shadow/update/pk01/gw-7";

// What the cloud held for the gateway before this start: two values the gateway once reported.
constexpr const char kShadows[] =
    R"({"pk01/gw-7": {"desired": {}, "reported": {"gw_orlo_project": "proj-a", "gw_orlo_logStore": "store-1"},
                      "version": 4}})";

Json::Value parsed(const std::string& text) {
    Json::Value value;
    Json::Reader reader;
    EXPECT_TRUE(reader.parse(text, value)) << text;
    return value;
}

size_t count_of(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

// Lines where the adapter applied a value ("set config k:v "), not where it found it in place
// ("local have set config k:v ").
size_t applied(const std::string& log, const std::string& key, const std::string& value) {
    const std::string line = "set config " + key + ":" + value + " ";
    return count_of(log, line) - count_of(log, "local have " + line);
}

class AGateway : public ::testing::Test {
protected:
    void SetUp() override {
        // Every document on the broker, both ways, as the cloud side sees them.
        ASSERT_TRUE(m_stack.start(kShadows)) << m_stack.failure();
        ASSERT_TRUE(m_watcher.connect(m_stack.broker().host(), m_stack.broker().port()));
        ASSERT_TRUE(m_watcher.subscribe("/shadow/#", 1));
    }

    bool value_becomes(const std::string& key, const std::string& value, seconds timeout = seconds(10)) {
        return wait_until([&] { return m_stack.get(key) == value; }, timeout);
    }

    CGatewayStack m_stack;
    CMqttClient m_watcher;
};

}  // namespace

TEST_F(AGateway, SyncsTheShadowBothWaysThroughARealBroker) {
    // (1) The adapter's topic subscription is accepted through the broker.
    ASSERT_TRUE(wait_until([&] { return m_stack.service().err().find("subscribe success:") != std::string::npos; },
                           seconds(10)))
        << m_stack.logs();
    EXPECT_NE(std::string::npos, m_stack.broker().log().find(kGetTopic)) << m_stack.broker().log();

    // (2) The start-up "get" is answered with a "reply" whose reported values are applied.
    ASSERT_TRUE(value_becomes("gw_orlo_project", "proj-a")) << m_stack.logs();
    ASSERT_TRUE(value_becomes("gw_orlo_logStore", "store-1")) << m_stack.logs();
    EXPECT_NE(std::string::npos, m_stack.cloud().out().find("-> /shadow/get/pk01/gw-7 {\"method\":\"reply\""));

    // (3) A desired value pushed by the simulator lands in the store.
    const CProcessResult pushed = m_stack.cloud_command({"desire", "pk01/gw-7", "gw_orlo_level=3", "gw_vexa_switch=1"});
    ASSERT_EQ(0, pushed.status) << pushed.err;
    ASSERT_TRUE(value_becomes("gw_orlo_level", "3")) << m_stack.logs();
    ASSERT_TRUE(value_becomes("gw_vexa_switch", "1")) << m_stack.logs();
    const uint64_t control_version = parsed(pushed.out)["version"].asUInt64();
    EXPECT_EQ(5u, control_version);

    // (4) A new serial number goes up as an "update" with the switch and the next version.
    m_watcher.clear();
    ASSERT_EQ(0, m_stack.set("gw_vexa_serialNumber", "SN-42"));
    ASSERT_TRUE(m_watcher.wait_for_count(kUpdateTopic, 1)) << m_stack.logs();
    const Json::Value update = parsed(m_watcher.messages(kUpdateTopic)[0].payload);
    EXPECT_EQ("update", update["method"].asString());
    EXPECT_EQ("SN-42", update["state"]["reported"]["gw_vexa_serialNumber"].asString());
    EXPECT_EQ(1u, update["state"]["reported"]["gw_vexa_switch"].asUInt());
    EXPECT_EQ(control_version + 1, update["version"].asUInt64());
    ASSERT_TRUE(wait_until([&] {
        const Json::Value shadow = parsed(m_stack.cloud_command({"show", "pk01/gw-7"}).out);
        return shadow["reported"]["gw_vexa_serialNumber"] == "SN-42" &&
               shadow["version"].asUInt64() == control_version + 1;
    })) << m_stack.logs();

    // The reported values came with one document and were applied once; the control document that
    // followed carried only desired values.
    // The service writes its log a moment after the lines are logged.
    std::string log;
    wait_until([&] {
        log = m_stack.service().err();
        return applied(log, "gw_orlo_project", "proj-a") > 0 && applied(log, "gw_orlo_logStore", "store-1") > 0;
    });
    EXPECT_EQ(1u, applied(log, "gw_orlo_project", "proj-a")) << m_stack.logs();
    EXPECT_EQ(1u, applied(log, "gw_orlo_logStore", "store-1"));
}

TEST_F(AGateway, StillReceivesDesiredValuesAfterTheBrokerRestarts) {
    ASSERT_TRUE(value_becomes("gw_orlo_project", "proj-a")) << m_stack.logs();
    m_stack.broker().stop();
    ASSERT_TRUE(m_stack.broker().start()) << m_stack.broker().log();

    // The bridge and the simulator reconnect on their own. A control document published before
    // the bridge has subscribed again is lost, as with a real cloud, so the cloud repeats its
    // wish with a new value until one arrives.
    int level = 10;
    const bool arrived = wait_until(
        [&] {
            ++level;
            const std::string value = std::to_string(level);
            if (m_stack.cloud_command({"desire", "pk01/gw-7", "gw_orlo_level=" + value}).status != 0) return false;
            return value_becomes("gw_orlo_level", value, seconds(1));
        },
        seconds(30));
    EXPECT_TRUE(arrived) << m_stack.logs();
}
