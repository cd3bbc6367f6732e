// The simulator as a developer runs it: "serve" against a real broker, the commands as separate
// processes, and a plain MQTT client in the place of the gateway.
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>

#include "quorel/testsupport/child_process.h"
#include "quorel/testsupport/mosquitto_broker.h"
#include "quorel/testsupport/mqtt_client.h"
#include "quorel/testsupport/wait.h"

using namespace Quorel::Iot::Testing;
using std::chrono::seconds;

namespace {

Json::Value parsed(const std::string& text) {
    Json::Value value;
    Json::Reader reader;
    EXPECT_TRUE(reader.parse(text, value)) << text;
    return value;
}

class AShadowCloud : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/cm-shadow-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(tmpl));
        m_dir = tmpl;
        ASSERT_TRUE(m_broker.start()) << m_broker.log();
        ASSERT_TRUE(m_gateway.connect(m_broker.host(), m_broker.port()));
        ASSERT_TRUE(m_gateway.subscribe("/shadow/get/#", 1));
        start_serving();
    }

    void TearDown() override {
        m_serve.reset();
        unlink(state().c_str());
        rmdir(m_dir.c_str());
    }

    std::string state() const { return m_dir + "/shadows.json"; }

    void start_serving() {
        m_serve.reset(new CChildProcess());
        ASSERT_TRUE(m_serve->start(
            {SHADOW_CLOUD_BINARY, "--port", std::to_string(m_broker.port()), "serve", "--state", state()}));
        ASSERT_TRUE(wait_until([&] { return m_serve->out().find("listening on") != std::string::npos; }, seconds(10)))
            << m_serve->out() << m_serve->err();
    }

    CProcessResult command(std::vector<std::string> args) {
        std::vector<std::string> argv = {SHADOW_CLOUD_BINARY, "--port", std::to_string(m_broker.port())};
        argv.insert(argv.end(), args.begin(), args.end());
        return run_process(argv);
    }

    // The gateway's "get", and the reply it brings back.
    Json::Value get_shadow(const std::string& device) {
        const std::string topic = "/shadow/get/" + device;
        const size_t before = m_gateway.messages(topic).size();
        EXPECT_TRUE(m_gateway.publish("/shadow/update/" + device, "{\"method\":\"get\"}", 1));
        if (!m_gateway.wait_for_count(topic, before + 1)) return Json::Value();
        return parsed(m_gateway.messages(topic).back().payload);
    }

    std::string m_dir;
    CMosquittoBroker m_broker;
    CMqttClient m_gateway;
    std::unique_ptr<CChildProcess> m_serve;
};

}  // namespace

TEST_F(AShadowCloud, PushesADesiredValueAsAControlDocumentAndShowsItInTheShadow) {
    const CProcessResult r = command({"desire", "pk01/gw-7", "gw_orlo_level=3", "gw_vexa_switch=1"});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ(3, parsed(r.out)["desired"]["gw_orlo_level"].asInt());
    ASSERT_TRUE(m_gateway.wait_for_count("/shadow/get/pk01/gw-7", 1));
    const Json::Value control = parsed(m_gateway.messages("/shadow/get/pk01/gw-7")[0].payload);
    EXPECT_EQ("control", control["method"].asString());
    EXPECT_EQ(1, control["payload"]["state"]["desired"]["gw_vexa_switch"].asInt());
    EXPECT_EQ(1u, control["version"].asUInt64());
    EXPECT_NE(std::string::npos, m_serve->out().find("-> /shadow/get/pk01/gw-7 {\"method\":\"control\""))
        << m_serve->out();

    const CProcessResult shown = command({"show", "pk01/gw-7"});
    ASSERT_EQ(0, shown.status) << shown.err;
    EXPECT_EQ(1, parsed(shown.out)["desired"]["gw_vexa_switch"].asInt());
}

TEST_F(AShadowCloud, AnswersTheGatewaysGetAndKeepsItsReportWithTheVersion) {
    ASSERT_EQ(0, command({"report", "pk01/gw-7", "gw_orlo_project=proj-a"}).status);
    const Json::Value reply = get_shadow("pk01/gw-7");
    EXPECT_EQ("reply", reply["method"].asString());
    EXPECT_EQ("proj-a", reply["payload"]["state"]["reported"]["gw_orlo_project"].asString());

    ASSERT_TRUE(
        m_gateway.publish("/shadow/update/pk01/gw-7",
                          "{\n\"method\" : \"update\",\n\"state\" : {\"reported\" : {\"gw_vexa_serialNumber\" : "
                          "\"SN-1\"}},\n\"version\" : 5\n}\n",
                          1));
    ASSERT_TRUE(wait_until([&] { return m_serve->out().find("shadow of pk01/gw-7 now") != std::string::npos; }))
        << m_serve->out();
    const Json::Value shadow = parsed(command({"show", "pk01/gw-7"}).out);
    EXPECT_EQ("SN-1", shadow["reported"]["gw_vexa_serialNumber"].asString());
    EXPECT_EQ(5u, shadow["version"].asUInt64());
    EXPECT_NE(std::string::npos, m_serve->out().find("<- /shadow/update/pk01/gw-7 {\"method\":\"update\""));
}

TEST_F(AShadowCloud, PrintsAndIgnoresWhatItCannotUseAndGoesOn) {
    ASSERT_TRUE(m_gateway.publish("/shadow/update/pk01/gw-7", "\x01garbage", 1));
    ASSERT_TRUE(m_gateway.publish("/shadow/update/pk01/gw-7", "{\"method\":\"reboot\"}", 1));
    ASSERT_TRUE(wait_until([&] { return m_serve->out().find("method not handled") != std::string::npos; }))
        << m_serve->out();
    EXPECT_NE(std::string::npos, m_serve->out().find("ignored: not a JSON object"));
    EXPECT_EQ("reply", get_shadow("pk01/gw-7")["method"].asString());
}

TEST_F(AShadowCloud, ShrugsOffRequestsOfTheWrongShapeOnItsRequestTopic) {
    CMqttClient hostile;
    ASSERT_TRUE(hostile.connect(m_broker.host(), m_broker.port()));
    ASSERT_TRUE(hostile.subscribe("/shadow-cloud/answer/#", 1));
    for (const std::string request :
         {R"({"command":{},"answer_to":"/shadow-cloud/answer/h"})",
          R"({"command":["desire"],"answer_to":"/shadow-cloud/answer/h"})",
          R"({"command":"desire","device":{"a":1},"values":{"k":1},"answer_to":"/shadow-cloud/answer/h"})",
          R"({"command":"desire","device":"pk/d","values":[1],"answer_to":"/shadow-cloud/answer/h"})",
          R"({"command":"show","answer_to":"/shadow-cloud/answer/+"})", "[]", "{", "\xff"}) {
        ASSERT_TRUE(hostile.publish("/shadow-cloud/request", request, 1));
    }
    // Each well-addressed request is refused with an answer, and the simulator keeps serving.
    ASSERT_TRUE(hostile.wait_for_count("/shadow-cloud/answer/h", 4)) << m_serve->out() << m_serve->err();
    for (const CMqttMessage& answer : hostile.messages("/shadow-cloud/answer/h"))
        EXPECT_EQ(1, parsed(answer.payload)["code"].asInt()) << answer.payload;
    EXPECT_TRUE(m_serve->running());
    EXPECT_EQ(0, command({"desire", "pk01/gw-7", "a=1"}).status);
}

TEST_F(AShadowCloud, KeepsItsShadowsAcrossARestart) {
    ASSERT_EQ(0, command({"desire", "pk01/gw-7", "gw_orlo_logStore=store-1"}).status);
    ASSERT_TRUE(m_serve->signal(SIGTERM));
    ASSERT_TRUE(m_serve->wait_exit(seconds(5)));
    EXPECT_EQ(0, m_serve->exit_status());
    start_serving();
    const Json::Value shadow = parsed(command({"show", "pk01/gw-7"}).out);
    EXPECT_EQ("store-1", shadow["desired"]["gw_orlo_logStore"].asString());
    EXPECT_EQ(1u, shadow["version"].asUInt64());
}

TEST_F(AShadowCloud, ComesBackToTheBrokerAfterItRestarts) {
    m_broker.stop();
    ASSERT_TRUE(m_broker.start());
    CMqttClient gateway;
    ASSERT_TRUE(gateway.connect(m_broker.host(), m_broker.port()));
    ASSERT_TRUE(gateway.subscribe("/shadow/get/#", 1));
    // The simulator reconnects on its own within its back-off of at most 2 s.
    ASSERT_TRUE(wait_until(
        [&] {
            gateway.publish("/shadow/update/pk/d", "{\"method\":\"get\"}", 1);
            return gateway.wait_for_count("/shadow/get/pk/d", 1, std::chrono::milliseconds(200));
        },
        seconds(10)))
        << m_serve->out();
}

TEST_F(AShadowCloud, CommandsTellUsageErrorsRefusalsAndAMissingSimulatorApart) {
    CProcessResult r = command({"desire", "pk01"});
    EXPECT_EQ(2, r.status);
    EXPECT_NE(std::string::npos, r.err.find("needs a DEVICE")) << r.err;
    r = command({"desire", "pk01", "a=1"});
    EXPECT_EQ(2, r.status);
    EXPECT_NE(std::string::npos, r.err.find("not a device")) << r.err;
    r = command({"frobnicate"});
    EXPECT_EQ(2, r.status);
    r = run_process({SHADOW_CLOUD_BINARY, "--port", "99999", "show"});
    EXPECT_EQ(2, r.status);
    r = command({"show", "pk/unknown"});
    EXPECT_EQ(1, r.status);
    EXPECT_NE(std::string::npos, r.err.find("no shadow for pk/unknown")) << r.err;
    m_serve->signal(SIGTERM);
    ASSERT_TRUE(m_serve->wait_exit(seconds(5)));
    r = command({"--timeout", "300", "show"});
    EXPECT_EQ(3, r.status);
    EXPECT_NE(std::string::npos, r.err.find("no shadow-cloud simulator answered")) << r.err;
}
