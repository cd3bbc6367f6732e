// What callers on the bus can send: wrong methods and arguments get error replies, bad topics
// and names get codes, the subscription bound holds, and the bridge serves on after each.
#include <string>

#include "bridge_fixture.h"

namespace BridgeTesting {
namespace {

class ABridgeOnTheBus : public CBridgeTest {
protected:
    void SetUp() override { ASSERT_TRUE(start_environment()); }
};

TEST_F(ABridgeOnTheBus, AnswersUnknownMembersAndWrongArgumentsWithErrorsAndServesOn) {
    ASSERT_TRUE(start_bridge());
    struct CCase {
        std::string path, interface, member, args, error;
    };
    const CCase cases[] = {
        {kPath, kInterface, "frobnicate", "", "org.freedesktop.DBus.Error.UnknownMethod"},
        {kPath, kInterface, "subscribe", "", "org.freedesktop.DBus.Error.InvalidArgs"},
        {kPath, kInterface, "subscribe", "s", "org.freedesktop.DBus.Error.InvalidArgs"},
        {kPath, kInterface, "subscribe", "sss", "org.freedesktop.DBus.Error.InvalidArgs"},
        {kPath, kInterface, "subscribe", "ssii", "org.freedesktop.DBus.Error.InvalidArgs"},
        {kPath, kInterface, "publish", "sii", "org.freedesktop.DBus.Error.InvalidArgs"},
        {kPath, kInterface, "publish", "ssiu", "org.freedesktop.DBus.Error.InvalidArgs"},
        {"/elsewhere", kInterface, "subscribe", "ssi", "org.freedesktop.DBus.Error.UnknownObject"},
        {kPath, "iot.other.interface", "subscribe", "ssi", "org.freedesktop.DBus.Error.UnknownInterface"},
    };
    for (const CCase& c : cases) {
        CCallBuilder builder(kName, c.path, c.interface, c.member);
        for (char type : c.args) {
            if (type == 's') builder.str("text");
            if (type == 'i') builder.i32(0);
            if (type == 'u') builder.u64(7);
        }
        const CAnswer answer = call(builder);
        EXPECT_TRUE(answer.answered) << c.member << "(" << c.args << ")";
        EXPECT_EQ(answer.error_name, c.error)
            << c.path << " " << c.interface << " " << c.member << "(" << c.args << "): " << describe(answer);
    }
    // libdbus's own answer to the standard peer interface is left alone.
    CCallBuilder ping(kName, kPath, "org.freedesktop.DBus.Peer", "Ping");
    const CAnswer pong = call(ping);
    EXPECT_TRUE(pong.answered);
    EXPECT_EQ(pong.error_name, "");

    EXPECT_TRUE(m_bridge.running());
    EXPECT_EQ(subscribe("still/served").text, R"({"code":0})");
}

TEST_F(ABridgeOnTheBus, RefusesSubscriptionsItCannotMakeWithTheirCodes) {
    ASSERT_TRUE(start_bridge());
    for (const std::string& name :
         {std::string(""), std::string("not a name"), std::string("no-dots"), std::string("trailing.dot."),
          std::string("1.starts.with.digit"), std::string(254, 'a') + ".b"}) {
        const CAnswer answer = subscribe("topic", name);
        EXPECT_EQ(answer.code, 4) << "'" << name << "': " << describe(answer);
    }
    for (const std::string& filter :
         {std::string(""), std::string("a/#/b"), std::string("a/b#"), std::string("a+/b"),
          std::string("$share/group/topic"), std::string(1025, 't'), std::string("tab\tin topic")}) {
        const CAnswer answer = subscribe(filter);
        EXPECT_EQ(answer.code, 3) << "'" << filter << "': " << describe(answer);
        EXPECT_FALSE(answer.message.empty());
    }
    EXPECT_EQ(subscribe(std::string(1024, 't')).code, 0);
    // A unique name is a bus name too: signals can be addressed to it.
    EXPECT_EQ(subscribe("unique/owner", m_client->unique_name()).code, 0);
}

TEST_F(ABridgeOnTheBus, HoldsItsSubscriptionBoundButAcceptsKnownPairs) {
    ASSERT_TRUE(start_bridge({"--max-subscriptions", "2"}));
    EXPECT_EQ(subscribe("one", kAdapter).code, 0);
    EXPECT_EQ(subscribe("one", "iot.second.listener").code, 0);
    const CAnswer full = subscribe("two", kAdapter);
    EXPECT_EQ(full.code, 6) << describe(full);
    EXPECT_NE(full.message.find("at most 2"), std::string::npos) << full.message;
    EXPECT_EQ(subscribe("one", kAdapter).code, 0);
}

TEST_F(ABridgeOnTheBus, CarriesOutCallsThatWantNoReply) {
    ASSERT_TRUE(start_bridge());
    std::unique_ptr<CMqttClient> cloud = mqtt_client();
    ASSERT_TRUE(cloud->subscribe("quiet", 1));
    CFakeService sender(m_bus.address(), "");
    ASSERT_TRUE(sender.start());
    CCallBuilder builder = bridge_call("publish");
    builder.str("quiet").str("no reply").i32(0);
    DBusMessage* message = builder.take();
    dbus_message_set_no_reply(message, TRUE);
    ASSERT_TRUE(sender.send(message));
    dbus_message_unref(message);
    ASSERT_TRUE(cloud->wait_for_count("quiet", 1));
    EXPECT_EQ(cloud->messages("quiet")[0].payload, "no reply");
}

}  // namespace
}  // namespace BridgeTesting
