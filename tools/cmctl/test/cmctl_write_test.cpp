// set, unset, subscribe and unsubscribe against the real service: timestamps, deletion, an owner
// that refuses or never answers, a service that stops while the owner decides, and a service or
// bus that is not there.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>

#include "cmctl_fixture.h"
#include "quorel/testsupport/fake_subscriber.h"
#include "quorel/testsupport/wait.h"

using namespace Quorel::Iot::Testing;

namespace {

using AWritingCmctl = CCmctlTest;

unsigned long long now_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

TEST_F(AWritingCmctl, SetsWithAndWithoutTimestampAndDeletes) {
    CProcessResult r = cmctl({"set", "gw_new", "one"});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("", r.out + r.err);
    EXPECT_EQ("one\n", cmctl({"get", "gw_new"}).out);

    r = cmctl({"set", "--ts=1700000000123", "gw_new", "two"});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("two\n1700000000123 2023-11-14T22:13:20.123+00:00\n", cmctl({"get", "--ts", "gw_new"}).out);

    // --ts alone stamps the current time; options may follow the arguments.
    const unsigned long long before = now_ms();
    r = cmctl({"set", "gw_new", "three", "--ts"});
    const unsigned long long after = now_ms();
    EXPECT_EQ(0, r.status) << r.err;
    const std::vector<std::string> lines = lines_of(cmctl({"get", "--ts", "gw_new"}).out);
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("three", lines[0]);
    const unsigned long long stamped = std::stoull(lines[1].substr(0, lines[1].find(' ')));
    EXPECT_LE(before, stamped);
    EXPECT_GE(after, stamped);

    // A value that looks like an option, after "--".
    r = cmctl({"set", "--", "gw_dash", "--ts"});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("--ts\n", cmctl({"get", "gw_dash"}).out);

    r = cmctl({"unset", "gw_new"});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ(3, cmctl({"get", "gw_new"}).status);
    // An empty value deletes as well, and deleting what is not there succeeds.
    EXPECT_EQ(0, cmctl({"set", "gw_dash", ""}).status);
    EXPECT_EQ(3, cmctl({"get", "gw_dash"}).status);
    EXPECT_EQ(0, cmctl({"unset", "gw_never_there"}).status);
}

TEST_F(AWritingCmctl, PassesAnOwnersRefusalOnWithItsCodeAndStatusFour) {
    CFakeSubscriber owner(address(), "iot.test.owner");
    ASSERT_TRUE(owner.start());
    CProcessResult r = cmctl({"subscribe", "iot.test.owner", "gw_orlo_level", "owner"});
    ASSERT_EQ(0, r.status) << r.err;

    owner.answer_code(42);
    r = cmctl({"set", "gw_orlo_level", "9"});
    EXPECT_EQ(4, r.status);
    EXPECT_EQ("", r.out);
    EXPECT_EQ("cmctl: gw_orlo_level: refused by the key's owner (42)\n", r.err);
    r = cmctl({"unset", "gw_orlo_level"});
    EXPECT_EQ(4, r.status);
    ASSERT_TRUE(owner.wait_for_notifications(2));
    EXPECT_EQ((std::pair<std::string, std::string>("gw_orlo_level", "9")), owner.notifications()[0]);
    EXPECT_EQ("2\n", cmctl({"get", "gw_orlo_level"}).out);

    owner.answer_code(-7);
    r = cmctl({"set", "--ts", "gw_orlo_level", "9"});
    EXPECT_EQ(4, r.status);
    EXPECT_EQ("cmctl: gw_orlo_level: refused by the key's owner (-7)\n", r.err);

    owner.answer_error();
    r = cmctl({"set", "gw_orlo_level", "9"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("cmctl: gw_orlo_level: the key's owner answered with an error (100000)\n", r.err);

    owner.answer_code(0);
    EXPECT_EQ(0, cmctl({"set", "gw_orlo_level", "5"}).status);
    EXPECT_EQ("5\n", cmctl({"get", "gw_orlo_level"}).out);
}

TEST_F(AWritingCmctl, EditsTheSubscriptionTable) {
    CProcessResult r = cmctl({"subscribe", "iot.test.first", "gw_k", "owner"});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_TRUE(wait_saved("iot.test.first", "gw_k", true));

    r = cmctl({"subscribe", "iot.test.second", "gw_k", "owner"});
    EXPECT_EQ(4, r.status);
    EXPECT_EQ(
        "cmctl: iot.test.second gw_k: subscription refused: another service owns the key (or a limit was reached) "
        "(100105)\n",
        r.err);
    EXPECT_EQ(0, cmctl({"subscribe", "iot.test.second", "gw_k", "observer"}).status);
    EXPECT_EQ(0, cmctl({"subscribe", "iot.test.second", "gw_other", "observer"}).status);

    r = cmctl({"subscribe", "not a bus name", "gw_k", "observer"});
    EXPECT_EQ(2, r.status);
    EXPECT_EQ("cmctl: not a bus name gw_k: not a valid bus name (100106)\n", r.err);
    r = cmctl({"subscribe", "iot.test.third", "gw_k", "boss"});
    EXPECT_EQ(2, r.status);
    EXPECT_EQ("cmctl: subscribe: the role is 'owner' or 'observer', not 'boss'\nTry 'cmctl subscribe --help'.\n",
              r.err);

    EXPECT_EQ(0, cmctl({"unsubscribe", "iot.test.first", "gw_k"}).status);
    r = cmctl({"unsubscribe", "iot.test.first", "gw_k"});
    EXPECT_EQ(3, r.status);
    EXPECT_EQ("cmctl: iot.test.first gw_k: not subscribed to that key (100107)\n", r.err);
    EXPECT_TRUE(wait_saved("iot.test.first", "gw_k", false));

    EXPECT_EQ(0, cmctl({"unsubscribe", "iot.test.second", "*"}).status);
    EXPECT_TRUE(wait_until([&] { return saved_nowhere("iot.test.second"); }));
    EXPECT_EQ(3, cmctl({"unsubscribe", "iot.test.second", "gw_other"}).status);
}

TEST_F(AWritingCmctl, GivesUpOnAnOwnerThatNeverAnswersAfterTheTimeout) {
    CFakeSubscriber owner(address(), "iot.test.silent");
    owner.answer_nothing();
    ASSERT_TRUE(owner.start());
    ASSERT_EQ(0, cmctl({"subscribe", "iot.test.silent", "gw_orlo_level", "owner"}).status);
    const auto start = std::chrono::steady_clock::now();
    const CProcessResult r = cmctl({"--timeout", "300", "set", "gw_orlo_level", "9"});
    EXPECT_EQ(6, r.status);
    EXPECT_EQ("cmctl: gw_orlo_level: no answer within 300 ms\n", r.err);
    EXPECT_LT(elapsed_ms(start), 5000);
}

TEST_F(AWritingCmctl, ReportsAServiceThatStopsWhileTheOwnerDecides) {
    CFakeSubscriber owner(address(), "iot.test.slow");
    owner.hold_answers();
    ASSERT_TRUE(owner.start());
    ASSERT_EQ(0, cmctl({"subscribe", "iot.test.slow", "gw_orlo_level", "owner"}).status);
    CChildProcess setter;
    ASSERT_TRUE(start_cmctl(setter, {"set", "gw_orlo_level", "9"}));
    ASSERT_TRUE(wait_until([&] { return owner.held_count() == 1; }));
    stop_service();
    ASSERT_TRUE(setter.wait_exit(std::chrono::seconds(10)));
    EXPECT_EQ(5, setter.exit_status());
    EXPECT_EQ("cmctl: gw_orlo_level: the service stopped before the key's owner answered (-1000902)\n", setter.err());
}

TEST_F(AWritingCmctl, ExitsWithStatusFiveWhenTheServiceOrTheBusIsAbsent) {
    stop_service();
    const std::string absent = "cmctl: iot.dmp.configmanager is not on the bus\n";
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"get", "gw_orlo_level"},
             {"set", "gw_orlo_level", "1"},
             {"dump"},
             {"keys"},
             {"export"},
             {"subscribe", "iot.x.y", "k", "owner"},
             {"watch", "gw_orlo_level"},
             {"own", "gw_orlo_level"},
         }) {
        const CProcessResult r = cmctl(args);
        EXPECT_EQ(5, r.status) << args[0] << ": " << r.err;
        EXPECT_EQ("", r.out) << args[0];
        EXPECT_EQ(absent, r.err) << args[0];
    }
    const CProcessResult r =
        run_cmctl({"get", "gw_orlo_level"}, {"CONFIG_MANAGER_BUS_ADDRESS=unix:path=/nonexistent/bus"});
    EXPECT_EQ(5, r.status);
    EXPECT_EQ(0u, r.err.find("cmctl: cannot connect to the bus at unix:path=/nonexistent/bus: ")) << r.err;
    EXPECT_EQ(1u, lines_of(r.err).size());
}

}  // namespace
