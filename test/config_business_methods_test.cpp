// The configuration service's methods, called over a private bus: codes, reply signatures, values.
#include <gtest/gtest.h>
#include <time.h>

#include <string>

#include "quorel/configmanager/config_business.h"
#include "quorel/testsupport/log_capture.h"
#include "quorel/testsupport/service_fixture.h"

using Quorel::Iot::Configmanager::g_exit_sem;
using Quorel::Iot::Testing::CArg;
using Quorel::Iot::Testing::CLogCapture;
using Quorel::Iot::Testing::CRecordedMessage;
using Quorel::Iot::Testing::CServiceHarness;
using Args = std::vector<std::string>;

namespace {

// "example.key" holds the envelope {"data":"42","ts":1700000000000} plus newline.
constexpr const char kDefaults[] =
    R"({"config": {"example.key": "eyJkYXRhIjoiNDIiLCJ0cyI6MTcwMDAwMDAwMDAwMH0K"}, "metadata": {}})";

uint64_t wall_ms() {
    struct timespec ts = {};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}

class AConfigService : public ::testing::Test {
protected:
    AConfigService() : h(kDefaults) {}
    void SetUp() override { ASSERT_TRUE(h.start()); }

    void set(const std::string& key, const std::string& value) {
        ASSERT_EQ(h.invoke("set_config", {CArg::s(key), CArg::s(value)}).args, Args{"0"});
    }
    CRecordedMessage get(const std::string& key) { return h.invoke("get_config", {CArg::s(key)}); }

    CLogCapture log;
    CServiceHarness h;
};

TEST_F(AConfigService, IntrospectsAsOneLineListingFourMethods) {
    const std::string expected =
        " <!DOCTYPE node PUBLIC \"-//freedesktop//DTD D-BUS Object Introspection 1.0//EN\" "
        "\"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd\"> <!-- dbus-sharp 0.8.1 --> <node>"
        "   <interface name=\"org.freedesktop.DBus.Introspectable\">     <method name=\"Introspect\">"
        "       <arg name=\"data\" direction=\"out\" type=\"s\" />     </method>   </interface>"
        "   <interface name=\"iot.dmp.configmanager\">     <method name=\"get_config\">"
        "       <arg name=\"key\" direction=\"in\" type=\"s\" />       <arg name=\"code\" direction=\"out\" type=\"i\" "
        "/>"
        "       <arg name=\"value\" direction=\"out\" type=\"s\" />     </method>     <method name=\"set_config\">"
        "       <arg name=\"key\" direction=\"in\" type=\"s\" />       <arg name=\"value\" direction=\"in\" type=\"s\" "
        "/>"
        "       <arg name=\"code\" direction=\"out\" type=\"i\" />     </method>     <method name=\"subscribe_config\">"
        "       <arg name=\"dbus_name\" direction=\"in\" type=\"s\" />"
        "       <arg name=\"key\" direction=\"in\" type=\"s\" />       <arg name=\"type\" direction=\"in\" type=\"i\" "
        "/>"
        "       <arg name=\"code\" direction=\"out\" type=\"i\" />     </method>"
        "     <method name=\"unsubscribe_config\">       <arg name=\"dbus_name\" direction=\"in\" type=\"s\" />"
        "       <arg name=\"key\" direction=\"in\" type=\"s\" />       <arg name=\"code\" direction=\"out\" type=\"i\" "
        "/>"
        "     </method>   </interface> </node>";
    for (const char* interface : {"iot.dmp.configmanager", "org.freedesktop.DBus.Introspectable", "any.other"}) {
        const CRecordedMessage reply = h.invoke("Introspect", {}, interface);
        EXPECT_EQ(reply.signature, "s") << interface;
        EXPECT_EQ(reply.args, Args{expected}) << interface;
    }
}

TEST_F(AConfigService, AnswersAnUnknownMethodWithAnEmptyReturn) {
    const CRecordedMessage reply = h.invoke("frobnicate", {CArg::s("k")});
    EXPECT_EQ(reply.type, DBUS_MESSAGE_TYPE_METHOD_RETURN);
    EXPECT_EQ(reply.signature, "");
    EXPECT_TRUE(log.contains("message_request, method error, method:frobnicate."));
}

TEST_F(AConfigService, GetsPlainValuesTheDataOfAnEnvelopeAndAnyOtherTextUnchanged) {
    set("plain", "on");
    set("no.data", R"({"a":1})");
    set("not.json", "abc");
    EXPECT_EQ(get("plain").args, (Args{"0", "on"}));
    EXPECT_EQ(get("plain").signature, "is");
    EXPECT_EQ(get("example.key").args, (Args{"0", "42"}));
    EXPECT_EQ(get("no.data").args, (Args{"0", R"({"a":1})"}));
    EXPECT_EQ(get("not.json").args, (Args{"0", "abc"}));
    EXPECT_TRUE(log.contains("handle_get, key:plain, code: 0"));
}

TEST_F(AConfigService, AnswersGetsOfMissingKeysAndBadArgumentsWithTheirCodes) {
    EXPECT_EQ(get("absent").args, (Args{"100100", ""}));
    const CRecordedMessage no_key = h.invoke("get_config");
    EXPECT_EQ(no_key.signature, "is");
    EXPECT_EQ(no_key.args, (Args{"100000", ""}));
    EXPECT_EQ(h.invoke("get_config", {CArg::i(5)}).args, (Args{"100000", ""}));
    EXPECT_TRUE(log.contains("handle_get, key:, code: 100000"));
}

TEST_F(AConfigService, GetsValuesWithTimestampsOnlyFromEnvelopes) {
    set("plain", "on");
    const CRecordedMessage envelope = h.invoke("get_config_with_ts", {CArg::s("example.key")});
    EXPECT_EQ(envelope.signature, "ist");
    EXPECT_EQ(envelope.args, (Args{"0", "42", "1700000000000"}));
    EXPECT_EQ(h.invoke("get_config_with_ts", {CArg::s("plain")}).args, (Args{"100100", "", "0"}));
    EXPECT_EQ(h.invoke("get_config_with_ts", {CArg::s("absent")}).args, (Args{"100100", "", "0"}));
    EXPECT_EQ(h.invoke("get_config_with_ts").args, (Args{"100000", "", "0"}));
}

TEST_F(AConfigService, RefusesSetsWithMissingOrMistypedArgumentsAndStoresNothing) {
    for (const auto& args : {std::initializer_list<CArg>{CArg::s("k")}, {CArg::s("k"), CArg::i(1)}, {}}) {
        const CRecordedMessage reply = h.invoke("set_config", args);
        EXPECT_EQ(reply.signature, "i");
        EXPECT_EQ(reply.args, Args{"100001"});
        EXPECT_EQ(h.invoke("set_config_with_ts", args).args, Args{"100001"});
    }
    EXPECT_EQ(get("k").args, (Args{"100100", ""}));
}

TEST_F(AConfigService, StoresSetConfigWithTsAsACompactEnvelope) {
    ASSERT_EQ(h.invoke("set_config_with_ts", {CArg::s("k"), CArg::s("v"), CArg::t(1234)}).args, Args{"0"});
    EXPECT_EQ(h.invoke("get_config_with_ts", {CArg::s("k")}).args, (Args{"0", "v", "1234"}));
    EXPECT_EQ(get("k").args, (Args{"0", "v"}));
    EXPECT_EQ(h.invoke("get_config_batch_with_ts", {CArg::s("^k$")}).args,
              (Args{"0", "[{\"key\":\"k\",\"ts\":1234,\"value\":\"v\"}]\n"}));
    EXPECT_TRUE(log.contains("handle_set_with_ts, key:k"));
}

TEST_F(AConfigService, StampsTheCurrentTimeWhenTheTimestampIsZeroAbsentOrMistyped) {
    const std::initializer_list<CArg> variants[] = {{CArg::s("k"), CArg::s("v"), CArg::t(0)},
                                                    {CArg::s("k"), CArg::s("v")},
                                                    {CArg::s("k"), CArg::s("v"), CArg::s("x")}};
    for (const auto& args : variants) {
        const uint64_t before = wall_ms();
        ASSERT_EQ(h.invoke("set_config_with_ts", args).args, Args{"0"});
        const uint64_t after = wall_ms();
        const CRecordedMessage reply = h.invoke("get_config_with_ts", {CArg::s("k")});
        ASSERT_EQ(reply.args.size(), 3u);
        EXPECT_EQ(reply.args[1], "v");
        const uint64_t ts = std::stoull(reply.args[2]);
        EXPECT_GE(ts, before);
        EXPECT_LE(ts, after);
    }
}

TEST_F(AConfigService, PassesPatternQueriesThroughWithTheirCodes) {
    set("gw_a", "1");
    set("gw_b", "2");
    EXPECT_EQ(h.invoke("get_config_batch", {CArg::s("^gw_")}).args,
              (Args{"0", "[{\"key\":\"gw_a\",\"value\":\"1\"},{\"key\":\"gw_b\",\"value\":\"2\"}]\n"}));
    EXPECT_EQ(h.invoke("get_config_keylist", {CArg::s("^gw_")}).args, (Args{"0", "[\"gw_a\",\"gw_b\"]\n"}));
    for (const char* member : {"get_config_batch", "get_config_batch_with_ts", "get_config_keylist"}) {
        const CRecordedMessage none = h.invoke(member, {CArg::s("^zz")});
        EXPECT_EQ(none.signature, "is") << member;
        EXPECT_EQ(none.args, (Args{"100100", ""})) << member;
        EXPECT_EQ(h.invoke(member, {CArg::i(1)}).args, (Args{"100000", ""})) << member;
    }
    EXPECT_TRUE(log.contains("handle_get_key, key:^gw_, keylist:[\"gw_a\",\"gw_b\"]\n"));
}

TEST_F(AConfigService, PostsTheExitSemaphoreWhenTheBusFails) {
    while (g_exit_sem.try_wait()) {
    }
    h.service().message_error(-1);
    EXPECT_TRUE(g_exit_sem.try_wait());
    EXPECT_TRUE(log.contains("message_error, recvice a error:-1."));
}

}  // namespace
