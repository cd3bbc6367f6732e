#include <gtest/gtest.h>
#include <signal.h>

#include "quorel/testsupport/child_process.h"
#include "quorel/testsupport/fake_service.h"
#include "quorel/testsupport/private_bus.h"
#include "quorel/testsupport/wait.h"

using namespace Quorel::Iot::Testing;
using std::chrono::seconds;

namespace {

class AWatchdogListener : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_bus.start());
        ASSERT_TRUE(m_listener.start({WATCHDOG_DEVD, m_bus.address()}));
        ASSERT_TRUE(wait_until([&] { return m_listener.out().find("watchdog listening") != std::string::npos; }))
            << m_listener.err();
        m_feeder.reset(new CFakeService(m_bus.address(), "iot.dmp.configmanager"));
        ASSERT_TRUE(m_feeder->start());
    }

    // A feed as the services send it: addressed to the watchdog, (name, id, timeout in seconds).
    bool feed(const std::string& name, int32_t timeout_s, bool well_formed = true) {
        DBusMessage* signal = dbus_message_new_signal("/iot/dmp/configmanager", "iot.gateway.watchdog", "feedDog");
        dbus_message_set_destination(signal, "iot.gateway.watchdog");
        const char* n = name.c_str();
        const char* id = "configmanager";
        if (well_formed) {
            dbus_message_append_args(signal, DBUS_TYPE_STRING, &n, DBUS_TYPE_STRING, &id, DBUS_TYPE_INT32, &timeout_s,
                                     DBUS_TYPE_INVALID);
        } else {
            dbus_message_append_args(signal, DBUS_TYPE_INT32, &timeout_s, DBUS_TYPE_INVALID);
        }
        const bool sent = m_feeder->send(signal);
        dbus_message_unref(signal);
        return sent;
    }

    bool printed(const std::string& text) {
        return wait_until([&] { return m_listener.out().find(text) != std::string::npos; }, seconds(5));
    }

    CPrivateBus m_bus;
    CChildProcess m_listener;
    std::unique_ptr<CFakeService> m_feeder;
};

}  // namespace

TEST_F(AWatchdogListener, PrintsEachFeedAndAFeederThatLetsItsTimeOutPass) {
    ASSERT_TRUE(feed("/iot/dmp/configmanager", 1));
    ASSERT_TRUE(printed("feedDog /iot/dmp/configmanager id=configmanager timeout=1 s")) << m_listener.out();
    ASSERT_TRUE(printed("OVERDUE /iot/dmp/configmanager: no feedDog for 1 s")) << m_listener.out();
    // A feeder that comes back is watched again.
    ASSERT_TRUE(feed("/iot/dmp/configmanager", 20));
    ASSERT_TRUE(printed("timeout=20 s")) << m_listener.out();
}

TEST_F(AWatchdogListener, IgnoresAFeedWithTheWrongArgumentsAndStopsCleanly) {
    ASSERT_TRUE(feed("x", 5, false));
    ASSERT_TRUE(printed("feedDog with arguments i instead of (ssi)")) << m_listener.out();
    ASSERT_TRUE(feed("/iot/dmp/config/adapter", 20));
    ASSERT_TRUE(printed("feedDog /iot/dmp/config/adapter")) << m_listener.out();
    ASSERT_TRUE(m_listener.signal(SIGTERM));
    ASSERT_TRUE(m_listener.wait_exit(seconds(5)));
    EXPECT_EQ(0, m_listener.exit_status());
}
