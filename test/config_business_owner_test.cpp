// Owners and observers end to end: the configuration service asks a key's owner before storing,
// answers the setter with the owner's code, and tells observers what was stored.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

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
using Notes = std::vector<std::pair<std::string, std::string>>;

namespace {

constexpr const char kOwner[] = "iot.test.owner";
constexpr const char kObserver[] = "iot.test.observer";

class AnOwnedKey : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(h.start());
        owner_ptr.reset(new CFakeSubscriber(h.address(), kOwner));
        observer_ptr.reset(new CFakeSubscriber(h.address(), kObserver));
        ASSERT_TRUE(owner().start());
        ASSERT_TRUE(observer().start());
        subscribe(kOwner, 0);
        subscribe(kObserver, 1);
        ASSERT_EQ(set("k", "before"), Args{"0"});
        owner().clear_received();
        ASSERT_TRUE(observer().wait_for_notifications(1));
    }

    void subscribe(const std::string& name, int32_t type, const std::string& key = "k") {
        ASSERT_EQ(h.invoke("subscribe_config", {CArg::s(name), CArg::s(key), CArg::i(type)}).args, Args{"0"});
    }
    Args set(const std::string& key, const std::string& value) {
        return h.invoke("set_config", {CArg::s(key), CArg::s(value)}).args;
    }
    std::string stored() { return h.invoke("get_config", {CArg::s("k")}).args.at(1); }

    CFakeSubscriber& owner() { return *owner_ptr; }
    CFakeSubscriber& observer() { return *observer_ptr; }

    CLogCapture log;
    CServiceHarness h;
    std::unique_ptr<CFakeSubscriber> owner_ptr;  // made in SetUp, once the bus has an address
    std::unique_ptr<CFakeSubscriber> observer_ptr;
};

TEST_F(AnOwnedKey, IsStoredOnlyWhenItsOwnerConsentsAndObserversHearAfterwards) {
    owner().answer_code(42);
    EXPECT_EQ(set("k", "vetoed"), Args{"42"});
    EXPECT_EQ(stored(), "before");
    owner().answer_code(0);
    EXPECT_EQ(set("k", "agreed"), Args{"0"});
    EXPECT_TRUE(wait_until([&] { return stored() == "agreed"; }));
    ASSERT_TRUE(observer().wait_for_notifications(2));
    EXPECT_EQ(owner().notifications(), (Notes{{"k", "before"}, {"k", "vetoed"}, {"k", "agreed"}}));
    EXPECT_EQ(observer().notifications(), (Notes{{"k", "before"}, {"k", "agreed"}}));
}

TEST_F(AnOwnedKey, ShowsObserversTheEnvelopeOnlyWhenTheOwnerConsentedToASetWithTs) {
    ASSERT_EQ(h.invoke("set_config_with_ts", {CArg::s("k"), CArg::s("v"), CArg::t(77)}).args, Args{"0"});
    ASSERT_TRUE(observer().wait_for_notifications(2));
    EXPECT_EQ(owner().notifications().back(), std::make_pair(std::string("k"), std::string("v")));
    EXPECT_EQ(observer().notifications().back().second, "{\"data\":\"v\",\"ts\":77}\n");

    subscribe(kObserver, 1, "free");
    ASSERT_EQ(h.invoke("set_config_with_ts", {CArg::s("free"), CArg::s("w"), CArg::t(78)}).args, Args{"0"});
    ASSERT_TRUE(observer().wait_for_notifications(3));
    EXPECT_EQ(observer().notifications().back(), std::make_pair(std::string("free"), std::string("w")));
}

TEST_F(AnOwnedKey, AnswersTwoWaitingSetsIndependently) {
    owner().hold_answers();
    const size_t first = h.send("set_config", {CArg::s("k"), CArg::s("one")});
    const size_t second = h.send("set_config", {CArg::s("k"), CArg::s("two")});
    ASSERT_TRUE(wait_until([&] { return owner().held_count() == 2; }));
    ASSERT_TRUE(owner().answer_held(1, 5));
    EXPECT_EQ(h.client().collect(second).args, Args{"5"});
    ASSERT_TRUE(owner().answer_held(0, 0));
    EXPECT_EQ(h.client().collect(first).args, Args{"0"});
    EXPECT_TRUE(wait_until([&] { return stored() == "one"; }));
}

TEST_F(AnOwnedKey, FailsWith100000WhenTheOwnerAnswersWithAnError) {
    owner().answer_error();
    EXPECT_EQ(set("k", "x"), Args{"100000"});
    owner().answer_string("not a code");
    EXPECT_EQ(set("k", "y"), Args{"100103"});
    EXPECT_EQ(stored(), "before");
    EXPECT_EQ(observer().notifications().size(), 1u);
}

TEST_F(AnOwnedKey, FailsWith100000WhenTheOwnerIsNotOnTheBus) {
    owner().stop();
    EXPECT_EQ(set("k", "x"), Args{"100000"});
    EXPECT_EQ(stored(), "before");
}

TEST_F(AnOwnedKey, AnswersEveryWaitingSetWithTheShutdownTextWhenTheServiceStops) {
    owner().hold_answers();
    const size_t first = h.send("set_config", {CArg::s("k"), CArg::s("one")});
    const size_t second = h.send("set_config_with_ts", {CArg::s("k"), CArg::s("two")});
    ASSERT_TRUE(wait_until([&] { return owner().held_count() == 2; }));
    h.stop_service();
    for (size_t ticket : {first, second}) {
        const CRecordedMessage reply = h.client().collect(ticket);
        EXPECT_EQ(reply.signature, "s");
        EXPECT_EQ(reply.args, Args{R"({"code":-1000902,"message":"server closed."})"});
    }
}

TEST_F(AnOwnedKey, FailsWith100102WhenTheOwnerCannotBeAsked) {
    h.service().debug_subscribe("odd", "add", "iot.bad-name", 0);
    EXPECT_EQ(set("odd", "x"), Args{"100102"});
    EXPECT_TRUE(log.contains("notify_to_owner, unblock call error, name:iot.bad-name."));
    EXPECT_TRUE(log.contains("handle_set, notify to owner fail."));
    EXPECT_EQ(h.invoke("get_config", {CArg::s("odd")}).args.at(0), "100100");
}

}  // namespace
