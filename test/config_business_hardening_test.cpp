// The configuration service against hostile clients and odd stored documents: every known method
// answers with its code, nothing a client stores can make an answer crash the process, silent
// subscribers cost nothing beyond their own keys, and the subscription table scales.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "quorel/configmanager/limits.h"
#include "quorel/testsupport/fake_subscriber.h"
#include "quorel/testsupport/log_capture.h"
#include "quorel/testsupport/service_fixture.h"
#include "quorel/testsupport/wait.h"

using Quorel::Iot::Testing::CArg;
using Quorel::Iot::Testing::CFakeSubscriber;
using Quorel::Iot::Testing::CLogCapture;
using Quorel::Iot::Testing::CRecordedMessage;
using Quorel::Iot::Testing::CServiceHarness;
using Quorel::Iot::Testing::wait_until;
using Args = std::vector<std::string>;
namespace Limits = Quorel::Iot::Configmanager::Limits;

namespace {

class AHostileClient : public ::testing::Test {
protected:
    explicit AHostileClient(const std::string& defaults = R"({"config": {}, "metadata": {}})") : h(defaults) {}
    void SetUp() override { ASSERT_TRUE(h.start()); }

    Args call(const std::string& member, std::initializer_list<CArg> args) { return h.invoke(member, args).args; }
    Args set(const std::string& key, const std::string& value) {
        return call("set_config", {CArg::s(key), CArg::s(value)});
    }
    Args subscribe(const std::string& name, const std::string& key, int32_t type) {
        return call("subscribe_config", {CArg::s(name), CArg::s(key), CArg::i(type)});
    }

    CLogCapture log;
    CServiceHarness h;
};

// A default file whose stored value decodes to a byte that is no UTF-8, and whose metadata is no
// object.
class AnOddDocument : public AHostileClient {
protected:
    AnOddDocument() : AHostileClient(R"({"config": {"bad": "/w==", "good": "b2s="}, "metadata": 5})") {}
};

}  // namespace

TEST_F(AHostileClient, GetsCode100100InsteadOfAValueThatIsNoUtf8) {
    // The JSON escape of a lone surrogate decodes to bytes that are no UTF-8.
    ASSERT_EQ(set("k", R"({"data":"\udc00","ts":7})"), Args{"0"});
    EXPECT_EQ(call("get_config", {CArg::s("k")}), (Args{"100100", ""}));
    EXPECT_EQ(call("get_config_with_ts", {CArg::s("k")}), (Args{"100100", "", "0"}));
    // Query results escape what is not ASCII, so they stay answerable.
    EXPECT_EQ(call("get_config_batch", {CArg::s("k")}), (Args{"0", "[{\"key\":\"k\",\"value\":\"\\ufffd\"}]\n"}));
    EXPECT_TRUE(log.contains("handle_get, key:k, value is no UTF-8 text within 25165824 bytes."));
    // The service is still there.
    EXPECT_EQ(set("k", "fine"), Args{"0"});
    EXPECT_EQ(call("get_config", {CArg::s("k")}), (Args{"0", "fine"}));
}

TEST_F(AHostileClient, GetsStructuredDataAsJsonTextAndTimestampsConvertedOrRefused) {
    ASSERT_EQ(set("obj", R"({"data":{"a":[1]},"ts":"later"})"), Args{"0"});
    ASSERT_EQ(set("t_true", R"({"data":"x","ts":true})"), Args{"0"});
    ASSERT_EQ(set("t_null", R"({"data":"x","ts":null})"), Args{"0"});
    ASSERT_EQ(set("t_real", R"({"data":"x","ts":1.5})"), Args{"0"});
    EXPECT_EQ(call("get_config", {CArg::s("obj")}), (Args{"0", R"({"a":[1]})"}));
    EXPECT_EQ(call("get_config_with_ts", {CArg::s("obj")}), (Args{"100100", R"({"a":[1]})", "0"}));
    EXPECT_EQ(call("get_config_with_ts", {CArg::s("t_true")}), (Args{"0", "x", "1"}));
    EXPECT_EQ(call("get_config_with_ts", {CArg::s("t_null")}), (Args{"0", "x", "0"}));
    EXPECT_EQ(call("get_config_with_ts", {CArg::s("t_real")}), (Args{"0", "x", "1"}));
    EXPECT_EQ(call("get_config_batch_with_ts", {CArg::s("^obj")}),
              (Args{"0", R"([{"key":"obj","ts":0,"value":"{\"a\":[1]}"}])"
                         "\n"}));
    EXPECT_EQ(call("get_config_batch", {CArg::s("^obj")}), (Args{"0", R"([{"key":"obj","value":"{\"a\":[1]}"}])"
                                                                      "\n"}));
}

TEST_F(AHostileClient, IsRefusedKeysAndValuesOverTheirLimitsWith100101) {
    const std::string largest(Limits::kMaxValueBytes, 'v');
    EXPECT_EQ(set(std::string(Limits::kMaxKeyBytes + 1, 'k'), "1"), Args{"100101"});
    EXPECT_EQ(set("big", largest + "v"), Args{"100101"});
    EXPECT_EQ(call("get_config", {CArg::s("big")}).at(0), "100100");
    EXPECT_EQ(set("big", largest), Args{"0"});
    EXPECT_EQ(call("get_config", {CArg::s("big")}).at(1).size(), Limits::kMaxValueBytes);
    // The envelope counts: the client's text plus its JSON wrapping.
    EXPECT_EQ(call("set_config_with_ts", {CArg::s("big_ts"), CArg::s(largest), CArg::t(5)}), Args{"100101"});
}

TEST_F(AHostileClient, CannotPileUpNotificationsOnASilentObserver) {
    CFakeSubscriber observer(h.address(), "iot.test.silent");
    ASSERT_TRUE(observer.start());
    observer.answer_nothing();
    ASSERT_EQ(subscribe("iot.test.silent", "k", 1), Args{"0"});
    // Far more than the bus daemon keeps pending replies for one connection.
    for (int i = 0; i < 300; ++i) ASSERT_EQ(set("k", std::to_string(i)), Args{"0"}) << i;
    ASSERT_TRUE(observer.wait_for_notifications(300));
    EXPECT_EQ(log.count_containing("notify_to_observer, unblock call error"), 0u);
}

TEST_F(AHostileClient, IsToldAtOnceWhenASilentOwnerHoldsItsShareOfQuestionsWhileOtherKeysGoOn) {
    CFakeSubscriber silent(h.address(), "iot.test.silent");
    CFakeSubscriber other(h.address(), "iot.test.other");
    ASSERT_TRUE(silent.start() && other.start());
    silent.hold_answers();
    ASSERT_EQ(subscribe("iot.test.silent", "held", 0), Args{"0"});
    ASSERT_EQ(subscribe("iot.test.other", "fine", 0), Args{"0"});
    std::vector<size_t> waiting;
    for (size_t i = 0; i < Limits::kMaxOwnerQuestions; ++i)
        waiting.push_back(h.send("set_config", {CArg::s("held"), CArg::s(std::to_string(i))}));
    ASSERT_TRUE(wait_until([&] { return silent.held_count() == Limits::kMaxOwnerQuestions; }));
    EXPECT_EQ(set("held", "one too many"), Args{"100102"});
    EXPECT_TRUE(log.contains("apply_set, owner iot.test.silent holds too many unanswered questions, key:held."));
    EXPECT_EQ(set("fine", "asked"), Args{"0"});
    EXPECT_EQ(set("unowned", "stored"), Args{"0"});
    // Once the owner answers, its key takes sets again.
    ASSERT_TRUE(silent.answer_held(0, 0));
    EXPECT_EQ(h.client().collect(waiting[0]).args, Args{"0"});
    silent.answer_code(0);
    EXPECT_EQ(set("held", "now"), Args{"0"});
}

TEST_F(AHostileClient, SubscribesTenThousandTimesAndUnsubscribesThemAllInLinearTime) {
    const auto begin = std::chrono::steady_clock::now();
    constexpr int kCount = 10000;
    constexpr int kInFlight = 100;
    std::vector<size_t> tickets;
    for (int i = 0; i < kCount; ++i) {
        tickets.push_back(
            h.send("subscribe_config", {CArg::s("iot.test.many"), CArg::s("key" + std::to_string(i)), CArg::i(1)}));
        if (tickets.size() == kInFlight || i == kCount - 1) {
            for (size_t ticket : tickets) ASSERT_EQ(h.client().collect(ticket).args, Args{"0"});
            tickets.clear();
        }
    }
    EXPECT_EQ(call("unsubscribe_config", {CArg::s("iot.test.many"), CArg::s("*")}), Args{"0"});
    const auto elapsed = std::chrono::steady_clock::now() - begin;
    // Work that grew with the table took 30 s here; linear work takes under a second (a few under ASan).
    EXPECT_LT(elapsed, std::chrono::seconds(10));
    EXPECT_EQ(call("unsubscribe_config", {CArg::s("iot.test.many"), CArg::s("key5")}), Args{"100107"});
    // The stored table is empty again: a restart finds no subscription.
    h.stop_service();
    ASSERT_TRUE(h.start_service());
    EXPECT_EQ(call("unsubscribe_config", {CArg::s("iot.test.many"), CArg::s("key9999")}), Args{"100107"});
}

TEST_F(AnOddDocument, AnswersAStoredValueThatIsNoUtf8With100100AndKeepsServing) {
    EXPECT_EQ(call("get_config", {CArg::s("bad")}), (Args{"100100", ""}));
    EXPECT_EQ(call("get_config", {CArg::s("good")}), (Args{"0", "ok"}));
}

TEST_F(AnOddDocument, SavesASubscriptionAlthoughTheStoredMetadataIsNoObject) {
    ASSERT_EQ(subscribe("iot.test.observer", "good", 1), Args{"0"});
    h.stop_service();
    ASSERT_TRUE(h.start_service());
    // Still subscribed after the restart: the table was saved.
    EXPECT_EQ(call("unsubscribe_config", {CArg::s("iot.test.observer"), CArg::s("good")}), Args{"0"});
}
