// Subscriptions: the two bus methods that edit the map, their codes, where subscribers are called,
// and the map's survival across a restart through the keychain.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "quorel/testsupport/fake_subscriber.h"
#include "quorel/testsupport/log_capture.h"
#include "quorel/testsupport/service_fixture.h"
#include "quorel/testsupport/wait.h"

using Quorel::Iot::Testing::CArg;
using Quorel::Iot::Testing::CFakeSubscriber;
using Quorel::Iot::Testing::CLogCapture;
using Quorel::Iot::Testing::CServiceHarness;
using Quorel::Iot::Testing::wait_until;
using Args = std::vector<std::string>;

namespace {

class ASubscription : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(h.start()); }

    Args subscribe(const std::string& name, const std::string& key, int32_t type) {
        return h.invoke("subscribe_config", {CArg::s(name), CArg::s(key), CArg::i(type)}).args;
    }
    Args unsubscribe(const std::string& name, const std::string& key) {
        return h.invoke("unsubscribe_config", {CArg::s(name), CArg::s(key)}).args;
    }
    Args set(const std::string& key, const std::string& value) {
        return h.invoke("set_config", {CArg::s(key), CArg::s(value)}).args;
    }
    std::unique_ptr<CFakeSubscriber> subscriber(const std::string& name, int32_t code = 0) {
        std::unique_ptr<CFakeSubscriber> s(new CFakeSubscriber(h.address(), name));
        s->answer_code(code);
        EXPECT_TRUE(s->start());
        return s;
    }

    CLogCapture log;
    CServiceHarness h;
};

TEST_F(ASubscription, RefusesASecondOwnerAndNamesTheExistingOneInTheLog) {
    ASSERT_EQ(subscribe("iot.a.svc", "K", 0), Args{"0"});
    EXPECT_EQ(subscribe("iot.b.svc", "K", 0), Args{"100105"});
    EXPECT_TRUE(log.contains("add_subscribe_map, already subscribe, dbus_name:iot.a.svc."));
    EXPECT_EQ(subscribe("iot.a.svc", "K", 0), Args{"0"});
    EXPECT_EQ(subscribe("iot.b.svc", "K", 1), Args{"0"});
}

TEST_F(ASubscription, AnswersBadTypesNamesAndArgumentsWithTheirCodes) {
    EXPECT_EQ(subscribe("iot.a.svc", "K", 2), Args{"100104"});
    EXPECT_EQ(subscribe("iot..svc", "K", 1), Args{"100106"});
    EXPECT_EQ(subscribe(":1.42", "K", 1), Args{"100106"});  // valid bus name, but no object path
    EXPECT_EQ(h.invoke("subscribe_config", {CArg::s("iot.a.svc"), CArg::s("K")}).args, Args{"100001"});
    EXPECT_EQ(h.invoke("unsubscribe_config", {CArg::s("iot.a.svc"), CArg::i(1)}).args, Args{"100001"});
    EXPECT_EQ(unsubscribe("iot.a.svc", "K"), Args{"100107"});
    EXPECT_TRUE(log.contains("handle_subscribe, dbus_name:iot.a.svc, key:K, type:2."));
    EXPECT_TRUE(log.contains("handle_unsubscribe, dbus_name:iot.a.svc, key:K."));
}

TEST_F(ASubscription, CallsASubscriberAtThePathAndInterfaceMadeFromItsName) {
    EXPECT_EQ(CServiceHarness::kName, std::string("iot.dmp.configmanager"));
    auto demo = subscriber("iot.demo.svc");
    ASSERT_EQ(subscribe("iot.demo.svc", "K", 1), Args{"0"});
    ASSERT_EQ(set("K", "v"), Args{"0"});
    ASSERT_TRUE(demo->wait_for_count("notify_config", 1));
    const auto call = demo->received("notify_config").front();
    EXPECT_EQ(call.path, "/iot/demo/svc");
    EXPECT_EQ(call.interface, "iot.demo.svc");
    EXPECT_EQ(call.args, (Args{"K", "v"}));
}

TEST_F(ASubscription, TurnsAnOwnerThatObservesIntoAnObserver) {
    auto a = subscriber("iot.a.svc", 9);
    ASSERT_EQ(subscribe("iot.a.svc", "K", 0), Args{"0"});
    EXPECT_EQ(set("K", "v"), Args{"9"});
    ASSERT_EQ(subscribe("iot.a.svc", "K", 1), Args{"0"});
    EXPECT_EQ(set("K", "v"), Args{"0"});
    EXPECT_EQ(h.invoke("get_config", {CArg::s("K")}).args, (Args{"0", "v"}));
}

TEST_F(ASubscription, DropsEveryKeyOfANameWithTheWildcardAndAlwaysAnswersZero) {
    auto a = subscriber("iot.a.svc", 9);
    ASSERT_EQ(subscribe("iot.a.svc", "K", 0), Args{"0"});
    ASSERT_EQ(subscribe("iot.a.svc", "L", 1), Args{"0"});
    ASSERT_EQ(subscribe("iot.b.svc", "L", 1), Args{"0"});
    EXPECT_EQ(unsubscribe("iot.a.svc", "*"), Args{"0"});
    EXPECT_EQ(unsubscribe("iot.a.svc", "*"), Args{"0"});
    EXPECT_EQ(set("K", "v"), Args{"0"});  // no owner any more
    EXPECT_EQ(unsubscribe("iot.a.svc", "L"), Args{"100107"});
    EXPECT_EQ(unsubscribe("iot.b.svc", "L"), Args{"0"});
    h.service().debug_subscribe("K");
    h.service().debug_subscribe("L");
    EXPECT_EQ(log.count("debug_subscribe, no subscribe info."), 2u);
}

TEST_F(ASubscription, TreatsTheWildcardAsAnOrdinaryKeyWhenSubscribing) {
    auto a = subscriber("iot.a.svc");
    ASSERT_EQ(subscribe("iot.a.svc", "*", 1), Args{"0"});
    ASSERT_EQ(set("K", "v"), Args{"0"});
    ASSERT_EQ(set("*", "w"), Args{"0"});
    ASSERT_TRUE(a->wait_for_notifications(1));
    EXPECT_EQ(a->notifications().front(), std::make_pair(std::string("*"), std::string("w")));
}

TEST_F(ASubscription, SurvivesARestartThroughTheKeychain) {
    auto owner = subscriber("iot.a.svc", 9);
    ASSERT_EQ(subscribe("iot.a.svc", "K", 0), Args{"0"});
    ASSERT_TRUE(wait_until([&] {
        std::string document;
        return h.keychain().get_item(CServiceHarness::kConfigItem, document) &&
               document.find("iot.a.svc") != std::string::npos;
    }));
    h.stop_service();
    ASSERT_TRUE(h.start_service());
    EXPECT_EQ(set("K", "v"), Args{"9"});
    EXPECT_EQ(owner->count("notify_config"), 1u);
}

TEST_F(ASubscription, EditsTheMapThroughTheDiagnosticOperations) {
    auto a = subscriber("iot.a.svc", 3);
    h.service().debug_subscribe("K", "add", "iot.a.svc", 0);
    h.service().debug_subscribe("K");
    EXPECT_TRUE(log.contains("debug_subscribe, K:{\n\t\"iot.a.svc\" : 0\n}\n."));
    EXPECT_EQ(set("K", "v"), Args{"3"});
    h.service().debug_subscribe("K", "del", "iot.a.svc", 0);
    EXPECT_EQ(set("K", "v"), Args{"0"});
    h.service().debug_config("K");
    h.service().debug_config("absent");
    h.service().debug_subscribe("K", "move", "iot.a.svc", 0);
    EXPECT_TRUE(log.contains("debug_config, K:v."));
    EXPECT_TRUE(log.contains("debug_config, get config error, name:absent."));
    EXPECT_TRUE(log.contains("debug_subscribe, opr error."));
}

}  // namespace
