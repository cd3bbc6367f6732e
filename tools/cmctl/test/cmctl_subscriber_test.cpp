// watch and own against the real service: each change printed or decided as it arrives, every
// notify_config answered, and no subscription left in the service's table after SIGINT or
// SIGTERM. The table is checked twice: in the service's memory (unsubscribing again answers "not
// subscribed") and as saved to the keychain, where the entries were seen before the signal.
#include <gtest/gtest.h>
#include <signal.h>

#include "cmctl_fixture.h"
#include "quorel/testsupport/bus_client.h"
#include "quorel/testsupport/fake_subscriber.h"
#include "quorel/testsupport/wait.h"

using namespace Quorel::Iot::Testing;

namespace {

class ASubscribingCmctl : public CCmctlTest {
protected:
    // Stops child with signal; it must end with status 0 and leave nothing behind.
    void stop_and_expect_clean(CChildProcess& child, int signal, const std::string& name,
                               const std::vector<std::string>& keys) {
        ASSERT_TRUE(child.signal(signal));
        ASSERT_TRUE(child.wait_exit(std::chrono::seconds(10)));
        EXPECT_EQ(0, child.exit_status()) << child.err();
        for (const std::string& key : keys) {
            EXPECT_EQ(3, cmctl({"unsubscribe", name, key}).status) << key;
            EXPECT_TRUE(wait_saved(name, key, false)) << key;
        }
        EXPECT_TRUE(saved_nowhere(name));
        EXPECT_FALSE(name_has_owner(name));
    }
};

// The same, for SIGINT and for SIGTERM.
class ASignalledCmctl : public ASubscribingCmctl, public ::testing::WithParamInterface<int> {};

TEST_P(ASignalledCmctl, WatchPrintsEachChangeAndLeavesNoSubscriptionBehind) {
    CChildProcess watch;
    ASSERT_TRUE(start_cmctl(watch, {"watch", "gw_w1", "gw_w2"}));
    const std::string name = "iot.tool.cmctl.w" + std::to_string(watch.pid());
    ASSERT_TRUE(wait_err(watch, "cmctl: watching gw_w1, gw_w2 as " + name + "; Ctrl-C stops\n")) << watch.err();
    ASSERT_TRUE(wait_saved(name, "gw_w1", true));
    ASSERT_TRUE(wait_saved(name, "gw_w2", true));

    ASSERT_EQ(0, cmctl({"set", "gw_w1", "one"}).status);
    ASSERT_EQ(0, cmctl({"set", "gw_w2", "two\nlines \xc3\xa9"}).status);
    ASSERT_EQ(0, cmctl({"set", "gw_other", "unwatched"}).status);
    ASSERT_EQ(0, cmctl({"unset", "gw_w1"}).status);
    ASSERT_TRUE(wait_lines(watch, 3)) << watch.out();
    const std::vector<std::string> lines = lines_of(watch.out());
    ASSERT_EQ(3u, lines.size());
    EXPECT_EQ("gw_w1 one", after_utc_time(lines[0])) << lines[0];
    EXPECT_EQ("gw_w2 two\\nlines \xc3\xa9", after_utc_time(lines[1])) << lines[1];
    EXPECT_EQ("gw_w1 ", after_utc_time(lines[2])) << lines[2];

    // Calls other than notify_config at its path are refused, not left unanswered.
    CBusClient client(address());
    ASSERT_TRUE(client.connect());
    CCallBuilder other(name, "/elsewhere", name, "notify_config");
    other.str("gw_w1").str("x");
    EXPECT_EQ(DBUS_MESSAGE_TYPE_ERROR, client.call(other).type);

    stop_and_expect_clean(watch, GetParam(), name, {"gw_w1", "gw_w2"});
    EXPECT_EQ(3u, lines_of(watch.out()).size());
}

TEST_F(ASubscribingCmctl, WatchKeepsUpWithABurstOfChanges) {
    CChildProcess watch;
    ASSERT_TRUE(start_cmctl(watch, {"watch", "--name", "iot.test.burst_watch", "gw_burst"}));
    ASSERT_TRUE(wait_err(watch, "Ctrl-C stops")) << watch.err();
    ASSERT_TRUE(wait_saved("iot.test.burst_watch", "gw_burst", true));
    // Sets from a client that does not wait between them.
    CBusClient client(address());
    ASSERT_TRUE(client.connect());
    std::vector<size_t> tickets;
    for (int i = 0; i < 100; ++i) {
        CCallBuilder set("iot.dmp.configmanager", "/iot/dmp/configmanager", "iot.dmp.configmanager", "set_config");
        set.str("gw_burst").str("v" + std::to_string(i));
        tickets.push_back(client.send_call(set));
    }
    for (size_t ticket : tickets) ASSERT_EQ(std::vector<std::string>{"0"}, client.collect(ticket).args);
    ASSERT_TRUE(wait_lines(watch, 100)) << lines_of(watch.out()).size();
    const std::vector<std::string> lines = lines_of(watch.out());
    for (int i = 0; i < 100; ++i) EXPECT_EQ("gw_burst v" + std::to_string(i), after_utc_time(lines[i]));
    // After an owner's consent, observers are sent the stored text with its timestamp; the watcher
    // shows the value.
    CFakeSubscriber owner(address(), "iot.test.burst_owner");
    ASSERT_TRUE(owner.start());
    ASSERT_EQ(0, cmctl({"subscribe", "iot.test.burst_owner", "gw_burst", "owner"}).status);
    ASSERT_EQ(0, cmctl({"set", "--ts=1700000000000", "gw_burst", "stamped"}).status);
    ASSERT_TRUE(wait_lines(watch, 101));
    EXPECT_EQ("gw_burst stamped", after_utc_time(lines_of(watch.out())[100]));
    stop_and_expect_clean(watch, SIGTERM, "iot.test.burst_watch", {"gw_burst"});
}

TEST_F(ASubscribingCmctl, OwnDecidesEveryChangeAndGivesTheKeyUp) {
    CChildProcess own;
    ASSERT_TRUE(start_cmctl(own, {"own", "--reject", "17", "gw_orlo_level"}));
    const std::string name = "iot.tool.cmctl.o" + std::to_string(own.pid());
    ASSERT_TRUE(wait_err(own, "cmctl: owning gw_orlo_level as " + name + "; Ctrl-C stops\n")) << own.err();
    ASSERT_TRUE(wait_saved(name, "gw_orlo_level", true));

    CProcessResult r = cmctl({"set", "gw_orlo_level", "9"});
    EXPECT_EQ(4, r.status);
    EXPECT_EQ("cmctl: gw_orlo_level: refused by the key's owner (17)\n", r.err);
    EXPECT_EQ("2\n", cmctl({"get", "gw_orlo_level"}).out);
    ASSERT_TRUE(wait_lines(own, 1));
    EXPECT_EQ("gw_orlo_level 9 refused 17", after_utc_time(lines_of(own.out())[0])) << own.out();

    // A second owner is refused while cmctl holds the key.
    r = cmctl({"own", "--name", "iot.test.second_owner", "gw_orlo_level"});
    EXPECT_EQ(4, r.status);
    EXPECT_NE(std::string::npos, r.err.find("another service owns the key")) << r.err;
    EXPECT_TRUE(saved_nowhere("iot.test.second_owner"));

    stop_and_expect_clean(own, SIGINT, name, {"gw_orlo_level"});
    // Without an owner, the set is stored at once.
    EXPECT_EQ(0, cmctl({"set", "gw_orlo_level", "9"}).status);
    EXPECT_EQ("9\n", cmctl({"get", "gw_orlo_level"}).out);

    CChildProcess accepting;
    ASSERT_TRUE(start_cmctl(accepting, {"own", "--name", "iot.test.acceptor", "gw_orlo_level"}));
    ASSERT_TRUE(wait_err(accepting, "Ctrl-C stops")) << accepting.err();
    ASSERT_TRUE(wait_saved("iot.test.acceptor", "gw_orlo_level", true));
    for (int i = 0; i < 5; ++i) ASSERT_EQ(0, cmctl({"set", "gw_orlo_level", std::to_string(i)}).status);
    EXPECT_EQ("4\n", cmctl({"get", "gw_orlo_level"}).out);
    ASSERT_TRUE(wait_lines(accepting, 5));
    EXPECT_EQ("gw_orlo_level 4 accepted", after_utc_time(lines_of(accepting.out())[4]));
    stop_and_expect_clean(accepting, SIGTERM, "iot.test.acceptor", {"gw_orlo_level"});
}

TEST_P(ASignalledCmctl, OwnRefusesTheChangeItWasAskingAboutWhenStopped) {
    CChildProcess own;
    ASSERT_TRUE(
        start_cmctl(own, {"own", "--ask", "--reject", "23", "--name", "iot.test.asker", "gw_orlo_level"}, true));
    ASSERT_TRUE(wait_err(own, "Ctrl-C stops")) << own.err();
    ASSERT_TRUE(wait_saved("iot.test.asker", "gw_orlo_level", true));
    CChildProcess setter;
    ASSERT_TRUE(start_cmctl(setter, {"set", "gw_orlo_level", "8"}));
    ASSERT_TRUE(wait_err(own, "gw_orlo_level := 8 ? [y/N/code] "));
    stop_and_expect_clean(own, GetParam(), "iot.test.asker", {"gw_orlo_level"});
    ASSERT_TRUE(setter.wait_exit(std::chrono::seconds(10)));
    EXPECT_EQ(4, setter.exit_status());
    EXPECT_EQ("cmctl: gw_orlo_level: refused by the key's owner (23)\n", setter.err());
}

INSTANTIATE_TEST_SUITE_P(Signals, ASignalledCmctl, ::testing::Values(SIGINT, SIGTERM),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return info.param == SIGINT ? std::string("Sigint") : std::string("Sigterm");
                         });

using AnAskingOwner = CCmctlTest;

TEST_F(AnAskingOwner, TakesEachAnswerFromItsInputAndStopsWhenTheInputEnds) {
    CChildProcess own;
    ASSERT_TRUE(start_cmctl(own, {"own", "--ask", "--name", "iot.test.asker", "gw_orlo_level"}, true));
    ASSERT_TRUE(wait_err(own, "Ctrl-C stops")) << own.err();

    // Two changes wait at once; each is asked in turn.
    CChildProcess first;
    CChildProcess second;
    ASSERT_TRUE(start_cmctl(first, {"set", "gw_orlo_level", "first"}));
    ASSERT_TRUE(wait_err(own, "gw_orlo_level := first ? [y/N/code] "));
    ASSERT_TRUE(start_cmctl(second, {"set", "gw_orlo_level", "two\nlines"}));
    ASSERT_TRUE(own.write_stdin(" yes \n"));
    ASSERT_TRUE(first.wait_exit(std::chrono::seconds(10)));
    EXPECT_EQ(0, first.exit_status()) << first.err();
    ASSERT_TRUE(wait_err(own, "gw_orlo_level := two\\nlines ? [y/N/code] "));
    ASSERT_TRUE(own.write_stdin("12\n"));
    ASSERT_TRUE(second.wait_exit(std::chrono::seconds(10)));
    EXPECT_EQ(4, second.exit_status());
    EXPECT_EQ("cmctl: gw_orlo_level: refused by the key's owner (12)\n", second.err());

    // Anything else refuses with the default code.
    CChildProcess third;
    ASSERT_TRUE(start_cmctl(third, {"set", "gw_orlo_level", "third"}));
    ASSERT_TRUE(wait_err(own, "gw_orlo_level := third ? [y/N/code] "));
    ASSERT_TRUE(own.write_stdin("maybe\n"));
    ASSERT_TRUE(third.wait_exit(std::chrono::seconds(10)));
    EXPECT_EQ("cmctl: gw_orlo_level: refused by the key's owner (1)\n", third.err());
    EXPECT_EQ("first\n", cmctl({"get", "gw_orlo_level"}).out);

    const std::vector<std::string> lines = lines_of(own.out());
    ASSERT_EQ(3u, lines.size()) << own.out();
    EXPECT_EQ("gw_orlo_level first accepted", after_utc_time(lines[0])) << lines[0];
    EXPECT_EQ("gw_orlo_level two\\nlines refused 12", after_utc_time(lines[1])) << lines[1];
    EXPECT_EQ("gw_orlo_level third refused 1", after_utc_time(lines[2])) << lines[2];

    own.close_stdin();
    ASSERT_TRUE(own.wait_exit(std::chrono::seconds(10)));
    EXPECT_EQ(0, own.exit_status()) << own.err();
    EXPECT_EQ(3, cmctl({"unsubscribe", "iot.test.asker", "gw_orlo_level"}).status);
    EXPECT_TRUE(wait_saved("iot.test.asker", "gw_orlo_level", false));
}

}  // namespace
